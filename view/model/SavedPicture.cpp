#include "model/SavedPicture.hpp"

#include <algorithm>
#include <limits>

#include "base/Files.hpp"

namespace view {

namespace {

constexpr std::string_view kFormat = "xrdefrag-view picture";
constexpr uint64_t kFormatVersion = 1;
constexpr size_t kDocumentBytesMax = size_t{64} << 20;
constexpr uint64_t kBlocksMax = std::numeric_limits<uint32_t>::max();

/// A member that a picture has, and its name in the document.
struct CountMember {
  const char* name;
  uint64_t Picture::* member;
};
constexpr CountMember kCounts[] = {
    {"files", &Picture::files},
    {"emptyFiles", &Picture::emptyFiles},
    {"fragmentedFiles", &Picture::fragmentedFiles},
    {"pieces", &Picture::pieces},
    {"fileBlocks", &Picture::fileBlocks},
    {"fragmentedBlocks", &Picture::fragmentedBlocks},
    {"freeRuns", &Picture::freeRuns},
    {"largestFreeRun", &Picture::largestFreeRun},
};

void writeHistogram(JsonWriter& json, const char* name, const Histogram& histogram) {
  json.name(name).beginArray();
  for (size_t magnitude = 0; magnitude < histogram.usedClasses(); ++magnitude) {
    json.value(histogram.count(magnitude));
  }
  json.endArray().lineBreak();
}

void writeMap(JsonWriter& json, const TileMap& whole) {
  const TileMap map = whole.reduced(kSavedTilesMax);
  json.name("map").beginObject();
  json.name("blocksPerTile").value(map.blocksPerTile()).lineBreak();
  const auto writeKind = [&](const char* name, BlockKind kind) {
    json.name(name).beginArray();
    for (size_t tile = 0; tile < map.tileCount(); ++tile) {
      json.value(map.tile(tile).of(kind));
    }
    json.endArray();
  };
  writeKind("contiguous", BlockKind::Contiguous);
  json.lineBreak();
  writeKind("fragmented", BlockKind::Fragmented);
  json.lineBreak();
  writeKind("system", BlockKind::System);
  json.endObject().lineBreak();
}

void writeFiles(JsonWriter& json, const char* name, const std::vector<FileEntry>& files) {
  json.name(name).beginArray();
  for (size_t index = 0; index < std::min(files.size(), kSavedFilesMax); ++index) {
    const FileEntry& file = files[index];
    json.lineBreak().beginObject();
    json.name("id").value(file.id);
    json.name("path").value(file.path);
    json.name("pieces").value(file.pieces);
    json.name("blocks").value(file.blocks);
    json.name("fragmented").value(file.fragmented);
    json.name("modified").value(file.modified);
    json.endObject();
  }
  json.endArray();
}

/// Reads the parts of a document into a picture; each answers whether its part holds together.
class PictureReader {
 public:
  explicit PictureReader(const JsonValue& document) : _document(document) {}

  bool read(Picture& picture) const {
    return readHead(picture) && readMap(picture) &&
           readHistogram("piecesPerFile", picture.piecesPerFile) &&
           readHistogram("blocksPerFreeRun", picture.blocksPerFreeRun) &&
           readFiles("mostFragmented", picture.mostFragmented) &&
           readFiles("largest", picture.largest);
  }

 private:
  bool readHead(Picture& picture) const {
    const JsonValue* format = _document.find("format");
    const JsonValue* device = _document.find("device");
    const JsonValue* takenAt = _document.find("takenAt");
    if (format == nullptr || format->string() == nullptr || *format->string() != kFormat ||
        _document.count("version") != kFormatVersion || device == nullptr ||
        device->string() == nullptr || takenAt == nullptr || !takenAt->number()) {
      return false;
    }
    picture.device = *device->string();
    picture.takenAt = *takenAt->number();
    picture.blockBytes = _document.count("blockBytes");
    if (picture.blockBytes && (*picture.blockBytes == 0 || *picture.blockBytes > kBlocksMax)) {
      return false;
    }
    return std::ranges::all_of(kCounts, [&](const CountMember& count) {
      const auto number = _document.count(count.name);
      picture.*count.member = number.value_or(0);
      return number.has_value();
    });
  }

  bool readMap(Picture& picture) const {
    const JsonValue* map = _document.find("map");
    const auto blocks = _document.count("blocks");
    if (map == nullptr || !blocks || *blocks > kBlocksMax) {
      return false;
    }
    picture.map = TileMap(*blocks, kSavedTilesMax);
    const JsonValue::Array* contiguous = tilesOf(*map, "contiguous", picture.map);
    const JsonValue::Array* fragmented = tilesOf(*map, "fragmented", picture.map);
    const JsonValue::Array* system = tilesOf(*map, "system", picture.map);
    if (contiguous == nullptr || fragmented == nullptr || system == nullptr ||
        map->count("blocksPerTile") != picture.map.blocksPerTile()) {
      return false;
    }
    for (size_t tile = 0; tile < picture.map.tileCount(); ++tile) {
      BlockCounts counts;
      if (!readBlocks((*contiguous)[tile], counts.contiguous) ||
          !readBlocks((*fragmented)[tile], counts.fragmented) ||
          !readBlocks((*system)[tile], counts.system) || !picture.map.addTile(tile, counts)) {
        return false;
      }
    }
    return true;
  }

  static const JsonValue::Array* tilesOf(const JsonValue& map, const char* name,
                                         const TileMap& tiles) {
    const JsonValue* member = map.find(name);
    const JsonValue::Array* array = member == nullptr ? nullptr : member->array();
    return array != nullptr && array->size() == tiles.tileCount() ? array : nullptr;
  }

  static bool readBlocks(const JsonValue& value, uint64_t& blocks) {
    const auto number = value.number();
    blocks = number && *number >= 0 ? static_cast<uint64_t>(*number) : kBlocksMax + 1;
    return blocks <= kBlocksMax;
  }

  bool readHistogram(const char* name, Histogram& histogram) const {
    const JsonValue* member = _document.find(name);
    const JsonValue::Array* counts = member == nullptr ? nullptr : member->array();
    if (counts == nullptr || counts->size() > Histogram::kClasses) {
      return false;
    }
    for (size_t magnitude = 0; magnitude < counts->size(); ++magnitude) {
      uint64_t count = 0;
      if (!readBlocks((*counts)[magnitude], count)) {
        return false;
      }
      histogram.setCount(magnitude, count);
    }
    return true;
  }

  bool readFiles(const char* name, std::vector<FileEntry>& files) const {
    const JsonValue* member = _document.find(name);
    const JsonValue::Array* entries = member == nullptr ? nullptr : member->array();
    if (entries == nullptr || entries->size() > kSavedFilesMax) {
      return false;
    }
    for (const JsonValue& entry : *entries) {
      FileEntry file;
      const JsonValue* path = entry.find("path");
      const JsonValue* fragmented = entry.find("fragmented");
      const JsonValue* modified = entry.find("modified");
      if (path == nullptr || path->string() == nullptr || fragmented == nullptr ||
          !fragmented->boolean() || modified == nullptr || !modified->number() ||
          !readCount(entry, "id", file.id) || !readCount(entry, "pieces", file.pieces) ||
          !readCount(entry, "blocks", file.blocks)) {
        return false;
      }
      file.path = *path->string();
      file.fragmented = *fragmented->boolean();
      file.modified = *modified->number();
      files.push_back(std::move(file));
    }
    return true;
  }

  static bool readCount(const JsonValue& entry, const char* name, uint64_t& count) {
    const auto number = entry.count(name);
    count = number.value_or(0);
    return number && count <= kBlocksMax;
  }

  const JsonValue& _document;
};

}  // namespace

void writePicture(JsonWriter& json, const Picture& picture) {
  const BlockCounts total = picture.map.total();
  json.beginObject().lineBreak();
  json.name("format").value(kFormat);
  json.name("version").value(kFormatVersion).lineBreak();
  json.name("device").value(picture.device);
  json.name("takenAt").value(picture.takenAt).lineBreak();
  json.name("blockBytes");
  picture.blockBytes ? json.value(*picture.blockBytes) : json.null();
  json.name("blocks").value(picture.blocks());
  json.name("usedBlocks").value(total.used());
  json.name("freeBlocks").value(total.free).lineBreak();
  for (const CountMember& count : kCounts) {
    json.name(count.name).value(picture.*count.member);
  }
  json.lineBreak();
  writeHistogram(json, "piecesPerFile", picture.piecesPerFile);
  writeHistogram(json, "blocksPerFreeRun", picture.blocksPerFreeRun);
  writeMap(json, picture.map);
  writeFiles(json, "mostFragmented", picture.mostFragmented);
  json.lineBreak();
  writeFiles(json, "largest", picture.largest);
  json.endObject();
}

std::string pictureAsJson(const Picture& picture) {
  JsonWriter json;
  writePicture(json, picture);
  return json.text() + "\n";
}

Outcome<Picture> pictureFromJson(std::string_view text) {
  const Outcome<JsonValue> document = JsonValue::parse(text);
  if (!document) {
    return std::unexpected(document.error());
  }
  Picture picture;
  if (!PictureReader(*document).read(picture)) {
    return fail(ExitStatus::FileTrouble, "it is no picture that xrdefrag-view has saved");
  }
  return picture;
}

Outcome<Picture> loadPicture(const std::string& path) {
  const Outcome<std::string> text = readFile(path, kDocumentBytesMax);
  if (!text) {
    return std::unexpected(text.error());
  }
  Outcome<Picture> picture = pictureFromJson(*text);
  if (!picture) {
    return fail(ExitStatus::FileTrouble, path + ": " + picture.error().message + ".");
  }
  return picture;
}

Outcome<> savePicture(const std::string& path, const Picture& picture) {
  return writeFile(path, pictureAsJson(picture));
}

}  // namespace view
