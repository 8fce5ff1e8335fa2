// Pieces that several fuzz targets share. Single-threaded, as libFuzzer runs inputs.
#pragma once

#include "Basalt/Trace.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace FuzzSupport {

// Turns the log off for the whole run: hostile inputs make the code under test warn at
// nearly every step, and writing those lines would be most of the work.
inline void silenceLog() {
    static const bool silenced = [] {
        Basalt::Trace::setThreshold(Basalt::Trace::Off);
        return true;
    }();
    (void)silenced;
}

// The next packet of a stream of bundle packets, from `at` on; advances `at`. When 16
// bytes or more remain, the first four (a bundle header's payload length) say how long
// the packet is, so that the well-formed packets of a seed stay whole under mutation;
// otherwise the packet is the rest of the input.
inline QByteArray nextPacket(const uint8_t* data, size_t size, size_t& at) {
    size_t length = size - at;
    if (length >= 16) {
        uint32_t payload;
        std::memcpy(&payload, data + at, 4);
        if (uint64_t(payload) + 16 < length)
            length = size_t(payload) + 16;
    }
    const QByteArray bytes(reinterpret_cast<const char*>(data + at), int(length));
    at += length;
    return bytes;
}

} // namespace FuzzSupport
