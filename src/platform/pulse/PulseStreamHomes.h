#pragma once

#include <QString>

#include <cstdint>
#include <map>

// Where each application stream played before Ondril first moved it, and which of Ondril's
// holders (a stream router or a tap) has it now, by sink-input index. A per-app session hands its
// streams from the server's own controls to the boosted path and back when the slider crosses
// unity; the holder that lets a stream go sends it to the sink it had before either took it, and
// one that was handed over leaves it alone. The server's own report of a move comes later, so
// this is what decides. Main thread only.
class PulseStreamHomes {
public:
    // `holder` has the stream now; `sink` is its home unless an earlier note stands.
    void take(std::uint32_t index, const QString& sink, const void* holder) {
        auto& entry = m_streams.try_emplace(index, Entry{sink, holder}).first->second;
        entry.holder = holder;
    }
    bool holds(std::uint32_t index, const void* holder) const {
        const auto found = m_streams.find(index);
        return found != m_streams.end() && found->second.holder == holder;
    }
    QString home(std::uint32_t index) const {
        const auto found = m_streams.find(index);
        return found == m_streams.end() ? QString() : found->second.home;
    }
    void forget(std::uint32_t index) { m_streams.erase(index); }

private:
    struct Entry {
        QString home;
        const void* holder = nullptr;
    };
    std::map<std::uint32_t, Entry> m_streams;
};
