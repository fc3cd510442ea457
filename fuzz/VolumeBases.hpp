#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "FuzzDevice.hpp"
#include "VolumePlaces.hpp"
#include "support/BuiltVolume.hpp"

namespace fuzz {

/// A sound volume, or an interrupted one, that recipes begin with.
struct VolumeBase {
  std::string_view name;
  FuzzImage image;
  VolumePlaces places;
};

/// How many bases there are. Their order is part of what a recipe means: new ones go to the end.
size_t volumeBaseCount();

/// A base, built when it is first asked for.
const VolumeBase& volumeBase(size_t number);

}  // namespace fuzz
