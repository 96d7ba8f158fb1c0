#include "control/URLHandler.h"

#include "appaudio/AppAudioManager.h"
#include "configs/ConfigManager.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "groups/OutputGroupCodec.h"

#include <QUrl>

#include <clocale>
#include <cstdlib>
#include <locale.h>

namespace {

const QString scheme = QStringLiteral("ondril");

bool sameIgnoringCase(const QString& a, const QString& b) {
    return QString::compare(a, b, Qt::CaseInsensitive) == 0;
}

QString percentDecoded(QStringView text) {
    return QString::fromUtf8(QByteArray::fromPercentEncoding(text.toUtf8()));
}

// The parts of "ondril://host/path?query#fragment" that commands read. Parsed by hand because
// QUrl folds the case of scheme and host, and both are compared with case here.
struct CommandParts {
    QString host;
    QList<URLHandler::QueryItem> items;
};

std::optional<CommandParts> parseCommand(const QString& url) {
    const qsizetype colon = url.indexOf(QLatin1Char(':'));
    if (colon <= 0 || url.left(colon) != scheme)
        return std::nullopt;
    if (!QUrl(url).isValid())
        return std::nullopt;

    QStringView rest = QStringView(url).mid(colon + 1);
    if (const qsizetype hash = rest.indexOf(QLatin1Char('#')); hash >= 0)
        rest = rest.left(hash);
    QStringView query;
    bool hasQuery = false;
    if (const qsizetype question = rest.indexOf(QLatin1Char('?')); question >= 0) {
        query = rest.mid(question + 1);
        hasQuery = true;
        rest = rest.left(question);
    }

    CommandParts parts;
    if (rest.startsWith(QLatin1String("//"))) {
        QStringView authority = rest.mid(2);
        authority = authority.left(authority.indexOf(QLatin1Char('/')));
        if (const qsizetype at = authority.lastIndexOf(QLatin1Char('@')); at >= 0)
            authority = authority.mid(at + 1);
        if (const qsizetype port = authority.lastIndexOf(QLatin1Char(':')); port >= 0)
            authority = authority.left(port);
        parts.host = percentDecoded(authority);
    }
    if (hasQuery && !query.isEmpty()) {
        for (QStringView item : query.split(QLatin1Char('&'))) {
            const qsizetype equals = item.indexOf(QLatin1Char('='));
            if (equals < 0)
                parts.items.append({percentDecoded(item), std::nullopt});
            else
                parts.items.append(
                    {percentDecoded(item.left(equals)), percentDecoded(item.mid(equals + 1))});
        }
    }
    return parts;
}

// "50" is fifty per cent, "0.5" half: values beyond 1 either way are percentages.
double groupVolumeScale(double value) {
    return std::abs(value) > 1 ? value / 100 : value;
}

// App volumes run to 4 (boost): only what lies above that is a percentage.
double appVolumeScale(double value) {
    return value > 4 ? value / 100 : value;
}

} // namespace

URLHandler::URLHandler(GroupManager& groups, AudioDeviceManager& audio, AppAudioManager& apps,
                       ConfigManager& configs)
    : m_groups(groups)
    , m_audio(audio)
    , m_apps(apps)
    , m_configs(configs) {}

URLHandler URLHandler::forSharedObjects() {
    return URLHandler(GroupManager::shared(), AudioDeviceManager::shared(),
                      AppAudioManager::shared(), ConfigManager::shared());
}

std::optional<QString> URLHandler::queryValue(const QString& name, const QList<QueryItem>& items) {
    for (const QueryItem& item : items)
        if (item.name == name)
            return item.value;
    return std::nullopt;
}

std::optional<double> URLHandler::number(const std::optional<QString>& text) {
    if (!text || text->isEmpty() || text->front().isSpace())
        return std::nullopt;
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", locale_t(nullptr));
    const QByteArray bytes = text->toUtf8();
    char* end = nullptr;
    const double value = strtod_l(bytes.constData(), &end, cLocale);
    if (end != bytes.constData() + bytes.size())
        return std::nullopt;
    return value;
}

std::optional<OutputGroup> URLHandler::findGroup(const QString& reference) const {
    const QList<OutputGroup> groups = m_groups.groups();
    for (const OutputGroup& group : groups)
        if (OutputGroupCodec::uuidText(group.id) == reference)
            return group;
    for (const OutputGroup& group : groups)
        if (sameIgnoringCase(group.name, reference))
            return group;
    return std::nullopt;
}

void URLHandler::handleURL(const QString& url) const {
    const auto parts = parseCommand(url);
    if (!parts || parts->host.isEmpty())
        return;
    const QString& host = parts->host;
    if (host == QLatin1String("activate"))
        activate(parts->items);
    else if (host == QLatin1String("deactivate"))
        m_groups.deactivate();
    else if (host == QLatin1String("single"))
        single(parts->items);
    else if (host == QLatin1String("volume"))
        volume(parts->items);
    else if (host == QLatin1String("mute"))
        m_groups.toggleGroupMute();
    else if (host == QLatin1String("app"))
        app(parts->items);
    else if (host == QLatin1String("config"))
        config(parts->items);
}

void URLHandler::activate(const QList<QueryItem>& items) const {
    const auto reference = queryValue(QStringLiteral("group"), items);
    if (!reference)
        return;
    if (const auto group = findGroup(*reference))
        m_groups.activate(*group); // again if already active: no toggle
}

void URLHandler::single(const QList<QueryItem>& items) const {
    const auto name = queryValue(QStringLiteral("device"), items);
    if (!name)
        return;
    // The service's own name only: custom names and hidden devices are not looked at.
    for (const AudioDevice& device : m_audio.outputDevices())
        if (sameIgnoringCase(device.name, *name)) {
            m_groups.switchToDevice(device.id);
            return;
        }
}

void URLHandler::volume(const QList<QueryItem>& items) const {
    const auto group = m_groups.activeGroup();
    if (!group)
        return;
    if (const auto set = number(queryValue(QStringLiteral("set"), items))) {
        m_groups.setMasterVolume(*group, groupVolumeScale(*set));
        return;
    }
    if (const auto delta = number(queryValue(QStringLiteral("delta"), items)))
        m_groups.stepGroupVolume(groupVolumeScale(*delta));
}

void URLHandler::app(const QList<QueryItem>& items) const {
    const auto bundle = queryValue(QStringLiteral("bundle"), items);
    if (!bundle)
        return;
    // Each key stands by itself: an unknown device does not undo the volume.
    if (const auto volume = number(queryValue(QStringLiteral("volume"), items)))
        m_apps.setVolume(*bundle, appVolumeScale(*volume));
    if (const auto mute = queryValue(QStringLiteral("mute"), items))
        m_apps.setMuted(*bundle, *mute == QLatin1String("1") ||
                                     sameIgnoringCase(*mute, QStringLiteral("true")));
    const auto device = queryValue(QStringLiteral("device"), items);
    if (!device)
        return;
    if (sameIgnoringCase(*device, QStringLiteral("default"))) {
        m_apps.setRoutes(*bundle, {});
        return;
    }
    for (const AudioDevice& output : m_audio.outputDevices())
        if (sameIgnoringCase(output.name, *device) || output.uid == *device) {
            m_apps.setRoutes(*bundle, {output.uid});
            return;
        }
}

void URLHandler::config(const QList<QueryItem>& items) const {
    if (const auto name = queryValue(QStringLiteral("apply"), items)) {
        m_configs.apply(*name); // apply wins over save
        return;
    }
    if (const auto name = queryValue(QStringLiteral("save"), items))
        m_configs.saveCurrent(*name);
}
