#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Strict UTF-8 to UTF-16. None when the bytes are not well-formed: overlong or truncated
/// sequences, surrogates, values beyond U+10FFFF.
[[nodiscard]] std::optional<std::u16string> LWUTF16FromUTF8(std::string_view text);

/// UTF-16 to UTF-8; a surrogate without its partner becomes U+FFFD.
[[nodiscard]] std::string LWUTF8FromUTF16(std::u16string_view text);

/// Whether the bytes are well-formed UTF-8.
[[nodiscard]] bool LWIsUTF8(std::string_view text);

/// Bytes of the well-formed UTF-8 sequence at the start of a text; 0 when there is none.
[[nodiscard]] size_t LWUTF8SequenceLength(std::string_view text);
