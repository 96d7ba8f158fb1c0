#include "ui/panel/AppListModel.h"

#include <algorithm>

AppListModel::AppListModel(std::function<QString(const QString&)> iconName, QObject* parent)
    : QAbstractListModel(parent)
    , m_iconName(std::move(iconName)) {}

int AppListModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : int(m_rows.size());
}

QVariant AppListModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= m_rows.size())
        return {};
    const AppAudioState& row = m_rows.at(index.row());
    switch (role) {
    case BundleIDRole:
        return row.bundleID;
    case NameRole:
        return row.name;
    case IsPlayingRole:
        return row.isPlaying;
    case VolumeRole:
        return row.prefs.volume;
    case MutedRole:
        return row.prefs.muted;
    case RouteUIDsRole:
        return row.prefs.routeUIDs;
    case FavouriteRole:
        return row.prefs.favourite;
    case IconNameRole:
        return m_iconName(row.bundleID);
    default:
        return {};
    }
}

QHash<int, QByteArray> AppListModel::roleNames() const {
    return {{BundleIDRole, "bundleID"},   {NameRole, "name"},        {IsPlayingRole, "isPlaying"},
            {VolumeRole, "volume"},       {MutedRole, "muted"},      {RouteUIDsRole, "routeUIDs"},
            {FavouriteRole, "favourite"}, {IconNameRole, "iconName"}};
}

int AppListModel::indexOf(const QString& bundleID, int from) const {
    for (int i = from; i < m_rows.size(); ++i)
        if (m_rows.at(i).bundleID == bundleID)
            return i;
    return -1;
}

void AppListModel::setRows(const QList<AppAudioState>& rows) {
    // Rows that left the list go first, from the end so that the indices stay valid.
    for (int i = int(m_rows.size()) - 1; i >= 0; --i) {
        const QString& id = m_rows.at(i).bundleID;
        const bool kept = std::any_of(rows.begin(), rows.end(),
                                      [&](const AppAudioState& row) { return row.bundleID == id; });
        if (kept)
            continue;
        beginRemoveRows({}, i, i);
        m_rows.removeAt(i);
        endRemoveRows();
    }
    // Then each place in turn: the row already there, one moved up from further down, or a new one.
    for (int i = 0; i < rows.size(); ++i) {
        const AppAudioState& wanted = rows.at(i);
        const int at = indexOf(wanted.bundleID, i);
        if (at < 0) {
            beginInsertRows({}, i, i);
            m_rows.insert(i, wanted);
            endInsertRows();
            continue;
        }
        if (at != i) {
            beginMoveRows({}, at, at, {}, i);
            m_rows.move(at, i);
            endMoveRows();
        }
        if (m_rows.at(i) != wanted) {
            m_rows[i] = wanted;
            emit dataChanged(index(i), index(i));
        }
    }
}
