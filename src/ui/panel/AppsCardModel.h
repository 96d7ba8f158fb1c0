#pragma once

#include <QObject>
#include <QStringList>
#include <QVariantList>

class AppAudioManager;
class AppListModel;
class AppSettings;
class AudioDeviceManager;
class GroupManager;
class RunningApplications;

// What the panel's apps card shows, decided here so that AppsCard.qml and AppRow.qml only draw
// and forward: the section's subtitle and Show All button, the rows of `apps` or `allApps`, the
// route summaries and the options of each row's output and boost pickers. Every control writes
// straight through `manager`.
class AppsCardModel : public QObject {
    Q_OBJECT
    Q_MOC_INCLUDE("appaudio/AppAudioManager.h")
    Q_MOC_INCLUDE("ui/panel/AppListModel.h")
    Q_PROPERTY(AppAudioManager* manager READ manager CONSTANT)
    Q_PROPERTY(AppListModel* rows READ rows CONSTANT)
    Q_PROPERTY(bool showAllApps READ showAllApps WRITE setShowAllApps NOTIFY showAllAppsChanged)
    Q_PROPERTY(QString subtitle READ subtitle NOTIFY listsChanged)
    Q_PROPERTY(bool showAllButtonVisible READ showAllButtonVisible NOTIFY listsChanged)
    // Changes whenever a destination's name, presence or visibility may have: bindings that call
    // routeSummary or outputOptions read it so that they are evaluated again.
    Q_PROPERTY(int destinationsTick READ destinationsTick NOTIFY destinationsTickChanged)
    Q_PROPERTY(QList<double> boostSteps READ boostSteps CONSTANT)

public:
    AppsCardModel(AppAudioManager& manager, AudioDeviceManager& audio, GroupManager& groups,
                  AppSettings& settings, RunningApplications& applications,
                  QObject* parent = nullptr);

    AppAudioManager* manager() const { return &m_manager; }
    AppListModel* rows() const { return m_rows; }
    bool showAllApps() const { return m_showAllApps; }
    void setShowAllApps(bool showAll);
    QString subtitle() const;
    bool showAllButtonVisible() const;
    int destinationsTick() const { return m_destinationsTick; }
    // Gain factors; five steps, and no 2.5.
    static QList<double> boostSteps() { return {1.0, 1.5, 2.0, 3.0, 4.0}; }

    // "Default", N + " devices", or the one device's custom name, else its name, else "Device".
    Q_INVOKABLE QString routeSummary(const QStringList& routeUIDs) const;
    // "Default Output", then each group, then each visible output; each option a map of name,
    // subtitle, selected, and the route it stands for ("route") or the device it toggles ("uid").
    Q_INVOKABLE QVariantList outputOptions(const QStringList& routeUIDs) const;
    // One option per boost step: name, subtitle, selected (within 0.01 of `volume`), step.
    Q_INVOKABLE QVariantList boostOptions(double volume) const;
    // A device option is a multi-selection: removes the UID if the route holds it, else appends.
    Q_INVOKABLE static QStringList toggledRoute(QStringList routeUIDs, const QString& uid);
    Q_INVOKABLE static QString percentText(double value);

signals:
    void showAllAppsChanged();
    void listsChanged();
    void destinationsTickChanged();

private:
    void updateRows();
    void bumpDestinationsTick();
    QString iconName(const QString& bundleID) const;

    AppAudioManager& m_manager;
    AudioDeviceManager& m_audio;
    GroupManager& m_groups;
    AppSettings& m_settings;
    RunningApplications& m_applications;
    AppListModel* m_rows;
    bool m_showAllApps = false;
    int m_destinationsTick = 0;
};
