#pragma once

#include "XRDefragVolume.hpp"

/// The volume's gate, closed for as long as this lives: no other task gets a turn on the volume.
class HFSPlusClosedGate {
 public:
  explicit HFSPlusClosedGate(XRDefragVolume& volume) : _volume(volume) { _volume.closeGate(); }
  HFSPlusClosedGate(const HFSPlusClosedGate&) = delete;
  HFSPlusClosedGate& operator=(const HFSPlusClosedGate&) = delete;
  ~HFSPlusClosedGate() { _volume.openGate(); }

 private:
  XRDefragVolume& _volume;
};
