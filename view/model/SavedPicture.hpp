#pragma once

#include <string>

#include "base/Json.hpp"
#include "base/Outcome.hpp"
#include "model/Picture.hpp"

namespace view {

/// What is kept of a picture in a file, so that a million files make no larger one than a thousand.
constexpr size_t kSavedTilesMax = 4096;
constexpr size_t kSavedFilesMax = 1000;

/// Writes a picture as one JSON object: what --json prints and --save keeps.
void writePicture(JsonWriter& json, const Picture& picture);

/// The whole document of one picture, with a newline at its end.
std::string pictureAsJson(const Picture& picture);

/// Reads a document that pictureAsJson() wrote. A file may come from anywhere: whatever does not
/// hold together is refused with a sentence.
Outcome<Picture> pictureFromJson(std::string_view text);

/// The same from and to a file. A file is replaced only when the new one is complete.
Outcome<Picture> loadPicture(const std::string& path);
Outcome<> savePicture(const std::string& path, const Picture& picture);

}  // namespace view
