#include "platform/AudioHardwareTypes.h"

std::uint32_t audioPropertyValueByteSize(const AudioPropertyValue& value) {
    struct Size {
        std::uint32_t operator()(std::monostate) const { return 0; }
        std::uint32_t operator()(std::uint32_t) const { return 4; }
        std::uint32_t operator()(std::int32_t) const { return 4; }
        std::uint32_t operator()(float) const { return 4; }
        std::uint32_t operator()(double) const { return 8; }
        std::uint32_t operator()(const QString&) const { return sizeof(void*); }
        std::uint32_t operator()(const std::vector<AudioObjectID>& ids) const {
            return std::uint32_t(ids.size() * sizeof(AudioObjectID));
        }
        std::uint32_t operator()(const AudioStreamConfiguration& configuration) const {
            // mNumberBuffers padded to 8, then one 16-byte AudioBuffer per buffer.
            return std::uint32_t(8 + 16 * configuration.channelsPerBuffer.size());
        }
    };
    return std::visit(Size{}, value);
}
