#pragma once

#include <string>

namespace doubles {

/// A loop device over a file, for as long as it lives; none without root or /dev/loop-control.
class LoopDevice {
 public:
  explicit LoopDevice(const std::string& backingFile, bool readOnly = false);
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;
  ~LoopDevice();

  bool works() const { return _descriptor >= 0; }
  const std::string& path() const { return _path; }

 private:
  int _descriptor = -1;
  std::string _path;
};

/// The file system on a loop device, mounted for as long as this lives; not if that is forbidden.
class LoopMount {
 public:
  explicit LoopMount(const LoopDevice& device);
  LoopMount(const LoopMount&) = delete;
  LoopMount& operator=(const LoopMount&) = delete;
  ~LoopMount();

  bool works() const { return _mounted; }

 private:
  std::string _directory;
  bool _mounted = false;
};

}  // namespace doubles
