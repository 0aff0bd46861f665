#pragma once

// Compile-time link between a pointer member, the real function that it stands for and the function's name:
// an entry whose three do not fit together does not compile. Only the sources with the tables include this.

#include <string_view>
#include <type_traits>

#include "mivra/ffmpeg/FfmpegFunctions.h"

namespace Mivra::FFmpeg {

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wattributes"  // g++ complains of its own va_list as a template's argument
#endif

/// A type as a caller passes it: enumerations as int, no const or volatile at any depth (FFmpeg moves const
/// about between versions without changing the call).
template <typename T>
struct PassedAs {
    using Type = std::conditional_t<std::is_enum_v<T>, int, T>;
};
template <typename T>
struct PassedAs<const T> : PassedAs<T> {};
template <typename T>
struct PassedAs<T*> {
    using Type = typename PassedAs<T>::Type*;
};
template <typename T>
struct PassedAs<T* const> : PassedAs<T*> {};
template <typename Result, typename... Arguments>
struct PassedAs<Result(Arguments...)> {
    using Type = typename PassedAs<Result>::Type(typename PassedAs<Arguments>::Type...);
};

template <typename A, typename B>
inline constexpr bool kCalledAlike = std::is_same_v<typename PassedAs<A>::Type, typename PassedAs<B>::Type>;

#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

#if defined(__GNUC__)
/// Whether Member is the one called name, as the compiler writes it in this function's own signature.
template <auto* Member>
consteval bool memberIsCalled(std::string_view name) {
    const std::string_view signature = __PRETTY_FUNCTION__;
    const std::size_t end = signature.find_first_of(");]", signature.find("Member = "));
    const std::size_t start = signature.find_last_of(':', end) + 1;
    return signature.substr(start, end - start) == name;
}
#else
template <auto* Member>
consteval bool memberIsCalled(std::string_view) {
    return true;
}
#endif

template <auto* Member>
void bindMember(void* symbol) {
    *Member = reinterpret_cast<std::remove_pointer_t<decltype(Member)>>(symbol);
}

/// The table entry of Member, which stands for a function of type Real called name.
template <auto* Member, typename Real>
consteval FfmpegFunction bound(FfmpegLibraryIndex library, const char* name) {
    using Declared = std::remove_pointer_t<std::remove_pointer_t<decltype(Member)>>;
    static_assert(kCalledAlike<Declared, Real>, "the member's signature is not the function's");
    if (!memberIsCalled<Member>(name)) {
        throw "the name is not the member's";  // not a constant: stops the compilation
    }
    return {name, library, bindMember<Member>};
}

}  // namespace Mivra::FFmpeg
