#pragma once

#include <functional>
#include <optional>
#include <utility>

class XRDefragVolume;

/// The right to rewrite a volume, which one task at a time has; the others wait in the order in
/// which they came.
///
/// Whoever waits for it holds no gate, and whoever has it closes the gate afterwards, so that
/// reporting tasks get their turns at the gate meanwhile. Any thread.
class HFSPlusRewritingTurn {
 public:
  /// Waits for the turn. None if `cancelled` became true first; it is asked again after every
  /// wakeWaiters().
  [[nodiscard]] static std::optional<HFSPlusRewritingTurn> wait(
      const XRDefragVolume& volume, const std::function<bool()>& cancelled);

  /// Makes everybody who waits ask again whether it was cancelled.
  static void wakeWaiters();

  HFSPlusRewritingTurn(HFSPlusRewritingTurn&& other) noexcept
      : _volume(std::exchange(other._volume, nullptr)) {}
  HFSPlusRewritingTurn& operator=(HFSPlusRewritingTurn&&) = delete;
  /// Lets the next one have its turn.
  ~HFSPlusRewritingTurn();

 private:
  explicit HFSPlusRewritingTurn(const XRDefragVolume& volume) : _volume(&volume) {}

  const XRDefragVolume* _volume;
};
