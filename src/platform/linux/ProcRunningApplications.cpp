#include "platform/linux/ProcRunningApplications.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QStandardPaths>
#include <QTextStream>

#include <unistd.h>

namespace {

QStringList defaultDataDirectories() {
    QStringList directories;
    const QString home = qEnvironmentVariable("XDG_DATA_HOME");
    directories << (home.isEmpty() ? QDir::homePath() + QStringLiteral("/.local/share") : home);
    QString system = qEnvironmentVariable("XDG_DATA_DIRS");
    if (system.isEmpty())
        system = QStringLiteral("/usr/local/share:/usr/share");
    directories << system.split(u':', Qt::SkipEmptyParts);
    return directories;
}

// systemd escapes '-' inside a unit-name component as \x2d.
QString unescapeUnitComponent(QString text) {
    return text.replace(QStringLiteral("\\x2d"), QStringLiteral("-"));
}

// The first word of an Exec line, resolved to an executable's canonical path; "" when none.
QString execProgram(const QString& exec) {
    QString program = exec.section(u' ', 0, 0, QString::SectionSkipEmpty);
    program.remove(u'"');
    if (program.isEmpty())
        return {};
    if (!program.startsWith(u'/'))
        program = QStandardPaths::findExecutable(program);
    return program.isEmpty() ? QString() : QFileInfo(program).canonicalFilePath();
}

} // namespace

ProcRunningApplications::ProcRunningApplications(const QString& procRoot,
                                                 const QStringList& dataDirectories)
    : m_procRoot(procRoot)
    , m_dataDirectories(dataDirectories.isEmpty() ? defaultDataDirectories() : dataDirectories) {}

void ProcRunningApplications::setStreamIdentities(StreamIdentities identities) {
    m_streamIdentities = std::move(identities);
}

QString ProcRunningApplications::executable(std::int32_t pid) const {
    const QString link = m_procRoot + u'/' + QString::number(pid) + QStringLiteral("/exe");
    QString target = QFileInfo(link).symLinkTarget();
    // An executable replaced by an update still names its old path.
    if (target.endsWith(QStringLiteral(" (deleted)")))
        target.chop(10);
    return target;
}

std::int32_t ProcRunningApplications::parentPid(std::int32_t pid) const {
    QFile stat(m_procRoot + u'/' + QString::number(pid) + QStringLiteral("/stat"));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    // "pid (comm) state ppid ...": comm may hold spaces and parentheses, so read after the last
    // ')'.
    const QByteArray line = stat.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 1).simplified().split(' ');
    return fields.size() > 1 ? fields[1].toInt() : 0;
}

std::int32_t
ProcRunningApplications::responsibilityGetPidResponsibleForPid(std::int32_t pid) const {
    const QString program = executable(pid);
    if (program.isEmpty())
        return -1;
    std::int32_t responsible = pid;
    for (std::int32_t parent = parentPid(pid); parent > 1 && executable(parent) == program;
         parent = parentPid(parent))
        responsible = parent;
    return responsible;
}

std::optional<QString> ProcRunningApplications::bundleIdentifierFromCgroup(const QString& line) {
    // app[-<launcher>]-<id>-<random>.scope or app[-<launcher>]-<id>[@<random>].service
    QString unit = line.section(u'/', -1);
    if (!unit.startsWith(QStringLiteral("app-")))
        return std::nullopt;
    unit = unit.mid(4);
    QStringList parts;
    if (unit.endsWith(QStringLiteral(".scope"))) {
        parts = unit.chopped(6).split(u'-');
        parts.removeLast(); // the random part
    } else if (unit.endsWith(QStringLiteral(".service"))) {
        parts = unit.chopped(8).section(u'@', 0, 0).split(u'-');
    } else {
        return std::nullopt;
    }
    if (parts.isEmpty() || parts.last().isEmpty())
        return std::nullopt;
    return unescapeUnitComponent(parts.last());
}

std::optional<QString> ProcRunningApplications::scopeIdentifier(std::int32_t pid) const {
    QFile cgroup(m_procRoot + u'/' + QString::number(pid) + QStringLiteral("/cgroup"));
    if (!cgroup.open(QIODevice::ReadOnly))
        return std::nullopt;
    QTextStream lines(&cgroup);
    for (QString line = lines.readLine(); !line.isNull(); line = lines.readLine())
        if (auto id = bundleIdentifierFromCgroup(line.trimmed()))
            return id;
    return std::nullopt;
}

const ProcRunningApplications::DesktopIndex& ProcRunningApplications::desktopIndex() const {
    if (m_index)
        return *m_index;
    m_index.emplace();
    const QString locale = QLocale().name();
    const QString language = locale.section(u'_', 0, 0);
    // Earlier directories win, as the desktop entry specification has it.
    for (auto dir = m_dataDirectories.crbegin(); dir != m_dataDirectories.crend(); ++dir) {
        const QString root = *dir + QStringLiteral("/applications");
        QDirIterator files(root, {QStringLiteral("*.desktop")}, QDir::Files,
                           QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
                continue;
            DesktopEntry entry;
            entry.id = QDir(root).relativeFilePath(path).chopped(8).replace(u'/', u'-');
            QString exec, localName, languageName;
            bool inMainGroup = false;
            QTextStream lines(&file);
            for (QString line = lines.readLine(); !line.isNull(); line = lines.readLine()) {
                if (line.startsWith(u'[')) {
                    inMainGroup = line.trimmed() == QLatin1String("[Desktop Entry]");
                    continue;
                }
                if (!inMainGroup)
                    continue;
                const QString key = line.section(u'=', 0, 0).trimmed();
                const QString value = line.section(u'=', 1).trimmed();
                if (key == QLatin1String("Exec"))
                    exec = value;
                else if (key == QLatin1String("Name"))
                    entry.name = value;
                else if (key == QStringLiteral("Name[%1]").arg(locale))
                    localName = value;
                else if (key == QStringLiteral("Name[%1]").arg(language))
                    languageName = value;
                else if (key == QLatin1String("Icon"))
                    entry.icon = value;
            }
            if (!localName.isEmpty())
                entry.name = localName;
            else if (!languageName.isEmpty())
                entry.name = languageName;
            m_index->byId.insert(entry.id, entry);
            if (const QString program = execProgram(exec); !program.isEmpty())
                m_index->idByExecutable.insert(program, entry.id);
        }
    }
    return *m_index;
}

std::optional<RunningApplication>
ProcRunningApplications::runningApplicationWithProcessIdentifier(std::int32_t pid) const {
    const QString program = executable(pid);
    if (program.isEmpty())
        return std::nullopt; // gone, or not ours to look at
    RunningApplication application;
    application.processIdentifier = pid;
    const DesktopIndex& index = desktopIndex();
    const QString canonical = QFileInfo(program).canonicalFilePath();
    const QString programID = index.idByExecutable.value(canonical.isEmpty() ? program : canonical);
    const std::optional<StreamIdentity> stream =
        m_streamIdentities ? m_streamIdentities(pid) : std::nullopt;
    if (stream && !stream->applicationID.isEmpty())
        application.bundleIdentifier = stream->applicationID;
    else if (stream && !stream->portalAppID.isEmpty())
        application.bundleIdentifier = stream->portalAppID;
    else if (const auto scope = scopeIdentifier(pid))
        application.bundleIdentifier = *scope;
    else if (!programID.isEmpty())
        application.bundleIdentifier = programID;
    else
        application.bundleIdentifier = QFileInfo(program).fileName();
    const auto found = index.byId.find(*application.bundleIdentifier);
    const std::optional<DesktopEntry> entry =
        found == index.byId.end() ? std::nullopt : std::optional<DesktopEntry>(*found);
    if (entry && !entry->name.isEmpty())
        application.localizedName = entry->name;
    else if (stream && !stream->applicationName.isEmpty())
        application.localizedName = stream->applicationName;
    if (entry && !entry->icon.isEmpty())
        application.iconName = entry->icon;
    else if (stream && !stream->iconName.isEmpty())
        application.iconName = stream->iconName;
    return application;
}

QList<RunningApplication> ProcRunningApplications::runningApplicationsWithBundleIdentifier(
    const QString& bundleIdentifier) const {
    QList<RunningApplication> found;
    const QStringList pids = QDir(m_procRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& name : pids) {
        bool isPid = false;
        const std::int32_t pid = name.toInt(&isPid);
        if (!isPid)
            continue;
        const auto application = runningApplicationWithProcessIdentifier(pid);
        if (application && application->bundleIdentifier == bundleIdentifier)
            found.append(*application);
    }
    return found;
}

QString ProcRunningApplications::ownBundleIdentifier() const {
    const auto own = runningApplicationWithProcessIdentifier(std::int32_t(::getpid()));
    return own ? own->bundleIdentifier.value_or(QString()) : QString();
}
