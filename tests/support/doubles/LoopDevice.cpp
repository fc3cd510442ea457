#include "support/doubles/LoopDevice.hpp"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>

namespace doubles {

LoopDevice::LoopDevice(const std::string& backingFile, bool readOnly) {
  const int mode = readOnly ? O_RDONLY : O_RDWR;
  const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  const int backing = ::open(backingFile.c_str(), mode | O_CLOEXEC);
  // Somebody else may take the free device between asking for it and using it.
  for (int tries = 0; control >= 0 && backing >= 0 && _descriptor < 0 && tries < 10; ++tries) {
    const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
    _path = "/dev/loop" + std::to_string(number);
    const int device = ::open(_path.c_str(), mode | O_CLOEXEC);
    if (device >= 0 && ::ioctl(device, LOOP_SET_FD, backing) == 0) {
      _descriptor = device;
    } else if (device >= 0) {
      ::close(device);
    }
  }
  for (const int descriptor : {control, backing}) {
    if (descriptor >= 0) {
      ::close(descriptor);
    }
  }
}

LoopDevice::~LoopDevice() {
  if (_descriptor >= 0) {
    ::ioctl(_descriptor, LOOP_CLR_FD);
    ::close(_descriptor);
  }
}

LoopMount::LoopMount(const LoopDevice& device) {
  std::string pattern = std::filesystem::temp_directory_path() / "xrdefrag-mount-XXXXXX";
  if (::mkdtemp(pattern.data()) != nullptr) {
    _directory = pattern;
    _mounted = ::mount(device.path().c_str(), _directory.c_str(), "ext4", MS_RDONLY, "") == 0 ||
               ::mount(device.path().c_str(), _directory.c_str(), "ext2", MS_RDONLY, "") == 0;
  }
}

LoopMount::~LoopMount() {
  if (_mounted) {
    ::umount(_directory.c_str());
  }
  if (!_directory.empty()) {
    ::rmdir(_directory.c_str());
  }
}

}  // namespace doubles
