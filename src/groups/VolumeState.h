#pragma once

// What a volume or mute command leaves behind, for the volume overlay to show.
struct VolumeState {
    double volume = 0;
    bool muted = false;

    friend bool operator==(const VolumeState&, const VolumeState&) = default;
};
