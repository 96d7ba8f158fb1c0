#pragma once

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <optional>

// The per-user key-value store that holds all of Ondril's settings: one typed file under
// $XDG_CONFIG_HOME/ondril/. A value is a boolean, a number, a text, an array, a dictionary or a
// binary blob kept byte for byte; an absent key is told from a false one. Every write goes through
// at once and atomically (lock, re-read, apply, write a temporary file, fsync, rename), so a crash
// never leaves a torn file and two processes writing different keys both keep their change.
// Reads see changes made by other processes (another Ondril, `ondril defaults`, a text editor).
// A corrupt file is moved aside with a timestamp, one warning line goes to stderr, and the store
// starts empty. A file that exists but cannot be read (permissions, I/O error) is never written:
// one line goes to stderr and the store turns read-only for the rest of the run.
class UserDefaults : public QObject {
    Q_OBJECT

public:
    // QVariant values held: bool, double, QString, QVariantList (of the same), QVariantMap,
    // QByteArray.
    explicit UserDefaults(const QString& filePath, QObject* parent = nullptr);
    ~UserDefaults() override;

    // The store of the running user: $XDG_CONFIG_HOME/ondril/defaults.json (~/.config when unset).
    static UserDefaults& standardUserDefaults();
    static QString standardFilePath();

    QString filePath() const;

    std::optional<QVariant> objectForKey(const QString& key) const;
    bool boolForKey(const QString& key) const; // false unless a stored boolean true
    std::optional<bool>
    storedBoolForKey(const QString& key) const;                    // absent unless a stored boolean
    std::optional<QString> stringForKey(const QString& key) const; // absent unless a text
    std::optional<QStringList>
    stringArrayForKey(const QString& key) const; // absent unless an array of texts
    // Absent unless a dictionary whose values are all texts.
    std::optional<QMap<QString, QString>> stringDictionaryForKey(const QString& key) const;
    std::optional<QByteArray> dataForKey(const QString& key) const; // absent unless a blob
    QStringList allKeys() const;
    // True once the file could not be read: every write then fails and the file stays as it was.
    bool isReadOnly() const;

    // Writes return false when the file could not be written (or read, see above) or the value
    // cannot be stored (a type the file cannot hold, a number that is not finite); the in-memory
    // view then keeps the old value too, so what is read is always what is stored.
    bool setObject(const QVariant& value, const QString& key);
    bool setBool(bool value, const QString& key);
    bool setString(const QString& value, const QString& key);
    bool setStringArray(const QStringList& value, const QString& key);
    bool setStringDictionary(const QMap<QString, QString>& value, const QString& key);
    bool setData(const QByteArray& value, const QString& key);
    bool removeObjectForKey(const QString& key);

private:
    struct Private;
    std::unique_ptr<Private> d;
};
