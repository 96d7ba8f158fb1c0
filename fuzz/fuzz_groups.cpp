// The group list as read back from the settings store ("ondril.groups.v1"): any bytes decode or
// are refused, and what decodes comes back unchanged through its own encoding.
#include "groups/OutputGroupCodec.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto groups =
        OutputGroupCodec::decode(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    if (!groups)
        return 0;
    const auto encoded = OutputGroupCodec::encode(*groups);
    if (!encoded || OutputGroupCodec::decode(*encoded) != groups)
        std::abort();
    return 0;
}
