#include "XRDefragError.hpp"

#include <csignal>

#include "Platform/PlatformProcess.hpp"

XRDefragError XRDefragError::internalHere(std::source_location where) {
  std::string_view source = where.file_name();
  return internal(source.substr(0, source.rfind('.')), where.line());
}

void XRDefragError::stopInDebugger() {
#ifndef NDEBUG
  if (PlatformProcess::isTraced()) {
    std::raise(SIGTRAP);
  }
#endif
}
