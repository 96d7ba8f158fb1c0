// The per-app records as read back from the settings store ("ondril.appPrefs.v1"): any bytes
// decode or are refused, and what decodes comes back unchanged through its own encoding.
#include "appaudio/AppAudioPrefs.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto prefs =
        AppAudioPrefs::decodeAll(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    if (prefs && AppAudioPrefs::decodeAll(AppAudioPrefs::encodeAll(*prefs)) != prefs)
        std::abort();
    return 0;
}
