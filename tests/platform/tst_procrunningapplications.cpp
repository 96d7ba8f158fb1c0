#include "platform/linux/ProcRunningApplications.h"

#include <QtTest>

namespace {

// A made-up /proc: each process has an exe link, a stat line naming its parent and a cgroup.
struct FakeProc {
    QTemporaryDir root;

    void add(std::int32_t pid, const QString& exe, std::int32_t parent,
             const QString& cgroup = "0::/user.slice/session-2.scope") {
        const QString dir = root.filePath(QString::number(pid));
        QDir().mkpath(dir);
        QFile::link(exe, dir + "/exe");
        write(dir + "/stat",
              QStringLiteral("%1 (a (strange) name) S %2 1 1 0\n").arg(pid).arg(parent));
        write(dir + "/cgroup", cgroup + u'\n');
    }
    static void write(const QString& path, const QString& text) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(text.toUtf8());
    }
};

// "bundle|name|icon" of the application running as `pid`, "-" for a part it lacks.
QString identity(const ProcRunningApplications& applications, std::int32_t pid) {
    const auto app = applications.runningApplicationWithProcessIdentifier(pid);
    if (!app)
        return QStringLiteral("none");
    const QString none = QStringLiteral("-");
    return app->bundleIdentifier.value_or(none) + u'|' + app->localizedName.value_or(none) + u'|' +
           app->iconName.value_or(none);
}

} // namespace

class ProcRunningApplicationsTest : public QObject {
    Q_OBJECT

private slots:
    void cgroupScope_data() {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("id"); // "" for none

        const QString slice = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/";
        const QList<std::pair<const char*, const char*>> scopes{
            {"app-gnome-org.gnome.Terminal-1234.scope", "org.gnome.Terminal"},
            {"app-flatpak-org.mozilla.firefox-5678.scope", "org.mozilla.firefox"},
            {"app-org.kde.konsole-99.scope", "org.kde.konsole"},
            {"app-gnome-firefox\\x2desr-12.scope", "firefox-esr"},
            {"app-org.example.Bar@abc.service", "org.example.Bar"}};
        for (const auto& [scope, id] : scopes)
            QTest::newRow(scope) << slice + scope << id;
        QTest::newRow("a login session") << "0::/user.slice/session-2.scope" << QString();
        QTest::newRow("a system service") << "0::/system.slice/cron.service" << QString();
    }

    void cgroupScope() {
        QFETCH(QString, line);
        QFETCH(QString, id);
        QCOMPARE(ProcRunningApplications::bundleIdentifierFromCgroup(line).value_or(QString()), id);
    }

    void identityNameAndResponsibility() {
        QTemporaryDir data;
        QDir().mkpath(data.filePath("applications/org.example"));
        FakeProc::write(data.filePath("applications/org.example/Sleeper.desktop"),
                        QStringLiteral("[Desktop Entry]\nName=Sleeper\nName[xx]=Dormeur\n"
                                       "Exec=sleep %U\nIcon=sleeper\n[Desktop Action New]\n"
                                       "Name=Other\nExec=true\n"));
        FakeProc::write(data.filePath("applications/org.example.Viewer.desktop"),
                        "[Desktop Entry]\nName=Viewer\nExec=/opt/viewer\nIcon=viewer\n");

        FakeProc proc;
        proc.add(10, "/usr/bin/env", 1);
        proc.add(11, "/usr/bin/env", 10); // a helper of 10
        proc.add(12, "/usr/bin/true", 11);
        proc.add(20, "/usr/bin/true", 1, "0::/app.slice/app-flatpak-org.example.Viewer-77.scope");
        proc.add(30, "/usr/bin/sleep", 1);
        ProcRunningApplications applications(proc.root.path(), {data.path()});

        QCOMPARE(applications.responsibilityGetPidResponsibleForPid(11), 10);
        QCOMPARE(applications.responsibilityGetPidResponsibleForPid(12), 12);
        QCOMPARE(applications.responsibilityGetPidResponsibleForPid(99), -1);

        QCOMPARE(identity(applications, 30), "org.example-Sleeper|Sleeper|sleeper");
        // The app scope comes before the executable's entry.
        QCOMPARE(identity(applications, 20), "org.example.Viewer|Viewer|viewer");
        QCOMPARE(identity(applications, 12), "true|-|-");
        QCOMPARE(identity(applications, 99), "none");

        QList<std::int32_t> pids;
        for (const RunningApplication& app :
             applications.runningApplicationsWithBundleIdentifier("env"))
            pids.append(app.processIdentifier);
        std::sort(pids.begin(), pids.end());
        QCOMPARE(pids, (QList<std::int32_t>{10, 11}));

        // What a process's stream says comes first: application.id, then the sandbox's app id; the
        // entry's name and icon still win over the stream's.
        applications.setStreamIdentities(
            [](std::int32_t pid) -> std::optional<ProcRunningApplications::StreamIdentity> {
                if (pid == 12)
                    return {{"org.example.Viewer", "org.example.Ignored", "Player", "player"}};
                if (pid == 20)
                    return {{{}, "org.example.Portal", "Portal App", "portal"}};
                return std::nullopt;
            });
        QCOMPARE(identity(applications, 12), "org.example.Viewer|Viewer|viewer");
        QCOMPARE(identity(applications, 20), "org.example.Portal|Portal App|portal");
    }
};

QTEST_GUILESS_MAIN(ProcRunningApplicationsTest)
#include "tst_procrunningapplications.moc"
