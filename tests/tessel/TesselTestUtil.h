// What the Tessel tests share: the layers they set values on, and a change counter.
#pragma once

#include "Tessel/Attribute.h"

namespace TesselTest {

constexpr auto L0 = Tessel::Attribute::LayerDefault;
constexpr auto L2 = Tessel::Attribute::LayerRemote;
constexpr auto L3 = Tessel::Attribute::LayerUser;
constexpr auto Current = Tessel::Attribute::LayerCurrent;

// Counts the change notifications of one attribute.
struct Changes {
    explicit Changes(Tessel::Attribute& attribute) {
        attribute.addListener([this] { ++count; }, Tessel::Attribute::RoleChange);
    }
    int count = 0;
};

} // namespace TesselTest
