#pragma once

#include "appaudio/AppAudioState.h"

#include <QAbstractListModel>
#include <QList>

#include <functional>

// The apps card's rows as a list model keyed by bundle identifier: a new publication updates the
// rows that stay in place and inserts, moves or removes only what changed, so that a row being
// dragged or with a picker open lives on while its app stays listed.
class AppListModel : public QAbstractListModel {
    Q_OBJECT

public:
    enum Role {
        BundleIDRole = Qt::UserRole + 1,
        NameRole,
        IsPlayingRole,
        VolumeRole,
        MutedRole,
        RouteUIDsRole,
        FavouriteRole,
        IconNameRole,
    };

    // `iconName` gives the desktop's icon for a bundle identifier, "" when it has none.
    explicit AppListModel(std::function<QString(const QString&)> iconName,
                          QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

    void setRows(const QList<AppAudioState>& rows);
    const QList<AppAudioState>& rows() const { return m_rows; }

private:
    int indexOf(const QString& bundleID, int from) const;

    std::function<QString(const QString&)> m_iconName;
    QList<AppAudioState> m_rows;
};
