# Writes the page's style and script as C++ strings, and the script's hash as a page's policy names it.
# Usage: cmake -DOUTPUT=FILE -DFOLDER=FOLDER -P EmbedPage.cmake
file(READ ${FOLDER}/page.css style)
file(READ ${FOLDER}/page.js script)

# From hexadecimal to base64, three bytes at a time; the last two of the 32 bytes get one "=".
file(SHA256 ${FOLDER}/page.js digits)
set(alphabet ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/)
set(hash "")
foreach(place RANGE 0 63 6)
  string(SUBSTRING "${digits}0000" ${place} 6 group)
  math(EXPR bits "0x${group}")
  foreach(shift 18 12 6 0)
    math(EXPR index "(${bits} >> ${shift}) & 63")
    string(SUBSTRING ${alphabet} ${index} 1 letter)
    string(APPEND hash ${letter})
  endforeach()
endforeach()
string(SUBSTRING ${hash} 0 43 hash)

file(WRITE ${OUTPUT} "#include \"report/HtmlPageParts.hpp\"

namespace view {

const char* const kPageStyle = R\"~~~~(${style})~~~~\";

const char* const kPageScript = R\"~~~~(${script})~~~~\";

const char* const kPageScriptHash = \"${hash}=\";

}  // namespace view
")
