#include "XRDefragError.hpp"

#include <csignal>

#include "Platform/PlatformProcess.hpp"

namespace {

/// What the compiler puts before a path that begins at the source root: nothing, unless it was
/// given paths of its caller's making, as by a compiler cache. This file lies at the root.
std::string_view sourceRoot() {
  const std::string_view path = std::source_location::current().file_name();
  return path.substr(0, path.rfind('/') + 1);
}

}  // namespace

XRDefragError XRDefragError::internalHere(std::source_location where) {
  std::string_view source = where.file_name();
  if (const std::string_view root = sourceRoot(); source.starts_with(root)) {
    source.remove_prefix(root.size());
  }
  return internal(source.substr(0, source.rfind('.')), where.line());
}

void XRDefragError::stopInDebugger() {
#ifndef NDEBUG
  if (PlatformProcess::isTraced()) {
    std::raise(SIGTRAP);
  }
#endif
}
