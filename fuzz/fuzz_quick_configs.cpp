// The quick configs as read back from the settings store ("ondril.snapshots.v1"): any bytes
// decode or are refused, and what decodes comes back unchanged through its own encoding.
#include "configs/QuickConfig.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto configs =
        QuickConfig::decodeAll(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    if (configs && QuickConfig::decodeAll(QuickConfig::encodeAll(*configs)) != configs)
        std::abort();
    return 0;
}
