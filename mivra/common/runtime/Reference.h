#pragma once

#include <utility>

namespace Mivra::Common {

/// Internal guard of one reference on a counted object (anything with AddRef and Release): gives it back at
/// the end of its scope, on every way out.
template <typename T>
class Reference {
public:
    Reference() noexcept = default;
    /// Takes a reference of its own.
    explicit Reference(T* object) : held(object) {
        if (held != nullptr) {
            held->AddRef();
        }
    }
    /// Takes over the reference that the caller owns.
    static Reference Adopt(T* object) noexcept {
        Reference reference;
        reference.held = object;
        return reference;
    }
    Reference(Reference&& other) noexcept : held(std::exchange(other.held, nullptr)) {}
    Reference& operator=(Reference&& other) noexcept {
        std::swap(held, other.held);
        return *this;
    }
    Reference(const Reference& other) : Reference(other.held) {}
    Reference& operator=(const Reference& other) {
        Reference copy(other);
        std::swap(held, copy.held);
        return *this;
    }
    ~Reference() {
        if (held != nullptr) {
            held->Release();
        }
    }

    T* get() const noexcept { return held; }
    T* operator->() const noexcept { return held; }
    explicit operator bool() const noexcept { return held != nullptr; }
    /// Hands the reference to the caller.
    [[nodiscard]] T* Detach() noexcept { return std::exchange(held, nullptr); }

private:
    T* held = nullptr;
};

}  // namespace Mivra::Common
