#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The text up to its first blank or tab, not counting those at its ends: the command of a line.
[[nodiscard]] std::string_view LWFirstComponent(std::string_view text);

/// The words of a line: what stands between runs of blanks and tabs. Nothing quotes or escapes.
[[nodiscard]] std::vector<std::string> LWTrimmedComponents(std::string_view text);

/// A short label for a size: "512B", "1.5KiB", "5120GiB". At most three digits follow the point,
/// printed without leading zeros (1.05 KiB reads "1.5KiB"): a label, not a value to compute with.
[[nodiscard]] std::string LWPrettySize(uint64_t bytes);

/// The decimal integer at the start of a text; leading white space is skipped, trailing text
/// ignored, a value beyond the type's limits becomes the limit. None when no digit stands there.
[[nodiscard]] std::optional<int64_t> LWScanInteger(std::string_view text);

/// The decimal number, perhaps with a fraction and an exponent, at the start of a text; white space
/// and trailing text as above. A value too large becomes the largest, one too small zero.
[[nodiscard]] std::optional<double> LWScanDouble(std::string_view text);

/// The text with the letters a to z in upper case and everything else as it is.
[[nodiscard]] std::string LWUppercaseASCII(std::string_view text);
