#pragma once

#include "PrivateSoundServer.h"

#include <cstdio>
#include <memory>

// The private server a sound-server benchmark runs against: PulseAudio, unless
// ONDRIL_TEST_SERVER=pipewire names the other. Says which on stdout; nullptr, with why on stderr,
// when it does not start.
inline std::unique_ptr<PrivateSoundServer> startBenchServer(const char* benchmark) {
    auto server = std::make_unique<PrivateSoundServer>(
        PrivateSoundServer::kindFromEnvironment().value_or(PrivateSoundServer::Kind::PulseAudio));
    std::printf("server: %s\n", qPrintable(PrivateSoundServer::kindName(server->kind())));
    if (!server->start()) {
        std::fprintf(stderr, "%s: %s\n", benchmark, qPrintable(server->error()));
        return nullptr;
    }
    return server;
}
