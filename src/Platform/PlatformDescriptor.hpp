#pragma once

#include <expected>
#include <string>
#include <utility>

/// An open file descriptor, closed on destruction.
class PlatformDescriptor {
 public:
  PlatformDescriptor() = default;
  explicit PlatformDescriptor(int descriptor) : _descriptor(descriptor) {}
  PlatformDescriptor(PlatformDescriptor&& other) noexcept
      : _descriptor(std::exchange(other._descriptor, -1)) {}
  PlatformDescriptor& operator=(PlatformDescriptor&& other) noexcept {
    std::swap(_descriptor, other._descriptor);
    return *this;
  }
  ~PlatformDescriptor();

  /// open(2) with O_CLOEXEC and O_NOCTTY; errno values.
  [[nodiscard]] static std::expected<PlatformDescriptor, int> open(const std::string& path,
                                                                   int flags);

  /// Opens anew, with other flags, the very file that this descriptor stands for.
  [[nodiscard]] std::expected<PlatformDescriptor, int> reopen(int flags) const;

  int descriptor() const { return _descriptor; }
  bool isOpen() const { return _descriptor >= 0; }

 private:
  int _descriptor = -1;
};
