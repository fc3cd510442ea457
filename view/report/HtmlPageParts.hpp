#pragma once

namespace view {

/// The page's style sheet and script, as they stand in page.css and page.js.
extern const char* const kPageStyle;
extern const char* const kPageScript;
/// SHA-256 of the script in base64, by which the page lets this one script run and no other.
extern const char* const kPageScriptHash;

}  // namespace view
