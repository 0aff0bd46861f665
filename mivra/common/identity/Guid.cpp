#include "mivra/common/identity/Guid.h"

#include <uuid/uuid.h>

#include <cstring>

#include "mivra/common/identity/GuidText.h"

namespace Mivra::Common {

static_assert(sizeof(Guid) == sizeof(uuid_t));

Guid::Guid(const std::string& text) noexcept {
    uuid_t parsed;
    if (text.size() == kGuidTextLength && ::uuid_parse(text.c_str(), parsed) == 0) {
        std::memcpy(bytes.data(), parsed, sizeof parsed);
    }
}

Guid Guid::NewGuid() noexcept {
    Guid id;
    ::uuid_generate_random(id.bytes.data());
    return id;
}

std::string Guid::ToString() const {
    char text[kGuidTextLength + 1];
    FormatGuid(*this, text);
    return text;
}

void FormatGuid(const Guid& id, char (&text)[kGuidTextLength + 1]) noexcept {
    uuid_t raw;
    std::memcpy(raw, &id, sizeof raw);
    ::uuid_unparse_lower(raw, text);
}

}  // namespace Mivra::Common
