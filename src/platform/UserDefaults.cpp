#include "platform/UserDefaults.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QStandardPaths>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int fileFormat = 1;

// Identity of the file a view was loaded from. The loaded file is kept open, so its inode cannot be
// reused by a later replacement: a rename by another process always shows as a new inode.
struct FileStamp {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    qint64 mtimeNs = 0;

    friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

FileStamp stampOf(const struct stat& info) {
    FileStamp stamp;
    stamp.exists = true;
    stamp.device = info.st_dev;
    stamp.inode = info.st_ino;
    stamp.size = info.st_size;
    stamp.mtimeNs = qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    return stamp;
}

FileStamp stampOfPath(const QByteArray& path) {
    struct stat info {};
    if (::stat(path.constData(), &info) != 0)
        return {};
    return stampOf(info);
}

// Each value carries its type, so that a blob stays a blob and a number never turns into a text.
std::optional<QJsonObject> encodeValue(const QVariant& value) {
    auto typed = [](const char* type, const QJsonValue& v) {
        return QJsonObject{{QStringLiteral("type"), QLatin1String(type)},
                           {QStringLiteral("value"), v}};
    };
    switch (value.typeId()) {
    case QMetaType::Bool:
        return typed("bool", value.toBool());
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        // JSON has no NaN or infinity: such a number would make the whole file unreadable.
        if (!std::isfinite(value.toDouble()))
            return std::nullopt;
        return typed("number", value.toDouble());
    case QMetaType::QString:
        return typed("string", value.toString());
    case QMetaType::QByteArray:
        return typed("data", QString::fromLatin1(value.toByteArray().toBase64()));
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        QJsonArray array;
        for (const QVariant& element : value.toList()) {
            auto encoded = encodeValue(element);
            if (!encoded)
                return std::nullopt;
            array.append(*encoded);
        }
        return typed("array", array);
    }
    case QMetaType::QVariantMap: {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            auto encoded = encodeValue(it.value());
            if (!encoded)
                return std::nullopt;
            object.insert(it.key(), *encoded);
        }
        return typed("dictionary", object);
    }
    default:
        return std::nullopt;
    }
}

std::optional<QVariant> decodeValue(const QJsonValue& json) {
    if (!json.isObject())
        return std::nullopt;
    const QJsonObject object = json.toObject();
    const QString type = object.value(QLatin1String("type")).toString();
    const QJsonValue value = object.value(QLatin1String("value"));
    if (type == QLatin1String("bool") && value.isBool())
        return QVariant(value.toBool());
    if (type == QLatin1String("number") && value.isDouble())
        return QVariant(value.toDouble());
    if (type == QLatin1String("string") && value.isString())
        return QVariant(value.toString());
    if (type == QLatin1String("data") && value.isString()) {
        auto decoded = QByteArray::fromBase64Encoding(value.toString().toLatin1(),
                                                      QByteArray::AbortOnBase64DecodingErrors);
        if (!decoded)
            return std::nullopt;
        return QVariant(*decoded);
    }
    if (type == QLatin1String("array") && value.isArray()) {
        QVariantList list;
        for (const QJsonValue& element : value.toArray()) {
            auto decoded = decodeValue(element);
            if (!decoded)
                return std::nullopt;
            list.append(*decoded);
        }
        return QVariant(list);
    }
    if (type == QLatin1String("dictionary") && value.isObject()) {
        QVariantMap map;
        const QJsonObject entries = value.toObject();
        for (auto it = entries.begin(); it != entries.end(); ++it) {
            auto decoded = decodeValue(it.value());
            if (!decoded)
                return std::nullopt;
            map.insert(it.key(), *decoded);
        }
        return QVariant(map);
    }
    return std::nullopt;
}

std::optional<QVariantMap> decodeFile(const QByteArray& bytes) {
    // An empty file holds nothing worth keeping; treat it as an empty store.
    if (bytes.trimmed().isEmpty())
        return QVariantMap{};
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonObject root = document.object();
    if (root.value(QLatin1String("format")).toInt(-1) != fileFormat ||
        !root.value(QLatin1String("values")).isObject())
        return std::nullopt;
    QVariantMap values;
    const QJsonObject entries = root.value(QLatin1String("values")).toObject();
    for (auto it = entries.begin(); it != entries.end(); ++it) {
        auto decoded = decodeValue(it.value());
        if (!decoded)
            return std::nullopt;
        values.insert(it.key(), *decoded);
    }
    return values;
}

std::optional<QByteArray> encodeFile(const QVariantMap& values) {
    QJsonObject entries;
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        auto encoded = encodeValue(it.value());
        if (!encoded)
            return std::nullopt;
        entries.insert(it.key(), *encoded);
    }
    const QJsonObject root{{QStringLiteral("format"), fileFormat},
                           {QStringLiteral("values"), entries}};
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

bool writeAll(int fd, const QByteArray& bytes) {
    const char* data = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, data, size_t(left));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += written;
        left -= written;
    }
    return true;
}

bool isStringList(const QVariant& value) {
    if (value.typeId() != QMetaType::QVariantList)
        return false;
    for (const QVariant& element : value.toList())
        if (element.typeId() != QMetaType::QString)
            return false;
    return true;
}

} // namespace

struct UserDefaults::Private {
    QString filePath;
    QByteArray nativePath;
    QByteArray lockPath;
    QVariantMap values;
    FileStamp stamp;
    int loadedFd = -1; // keeps the loaded inode alive, see FileStamp
    bool readOnly = false;

    ~Private() { closeLoaded(); }

    void closeLoaded() {
        if (loadedFd >= 0)
            ::close(loadedFd);
        loadedFd = -1;
    }

    // Holds an exclusive flock on the lock file beside the store for as long as it lives.
    class Lock {
    public:
        explicit Lock(const QByteArray& path)
            : m_fd(::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
            if (m_fd < 0)
                return;
            while (::flock(m_fd, LOCK_EX) != 0) {
                if (errno != EINTR) {
                    ::close(m_fd);
                    m_fd = -1;
                    return;
                }
            }
        }
        ~Lock() {
            if (m_fd >= 0) {
                ::flock(m_fd, LOCK_UN);
                ::close(m_fd);
            }
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        bool held() const { return m_fd >= 0; }

    private:
        int m_fd;
    };

    bool ensureDirectory() const { return QDir().mkpath(QFileInfo(filePath).absolutePath()); }

    // Reads the file as it is now. Absent means it could not be read (`readError` holds the errno)
    // or is corrupt (`readError` is 0); a missing file is an empty store.
    std::optional<QVariantMap> readFile(int& fd, FileStamp& readStamp, int& readError) const {
        readError = 0;
        fd = ::open(nativePath.constData(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            readStamp = {};
            if (errno == ENOENT)
                return QVariantMap{};
            readError = errno;
            return std::nullopt;
        }
        struct stat info {};
        if (::fstat(fd, &info) != 0) {
            readError = errno;
            return std::nullopt;
        }
        readStamp = stampOf(info);
        QByteArray bytes;
        char buffer[65536];
        for (;;) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                readError = errno;
                return std::nullopt;
            }
            if (n == 0)
                break;
            bytes.append(buffer, n);
        }
        return decodeFile(bytes);
    }

    // A file that could not be read may hold settings this run never saw: writing it would replace
    // them with what this run holds. So the run leaves it alone from then on, and says so once.
    void becomeReadOnly(int error) {
        if (readOnly)
            return;
        readOnly = true;
        std::fprintf(stderr,
                     "ondril: cannot read the settings file %s (%s); it is left as it is, and "
                     "changes are not saved until Ondril is started again\n",
                     nativePath.constData(), std::strerror(error));
    }

    void adopt(QVariantMap newValues, int fd, const FileStamp& newStamp) {
        closeLoaded();
        values = std::move(newValues);
        loadedFd = fd;
        stamp = newStamp;
    }

    // Moves a corrupt file aside so that nothing is destroyed silently. Called with the lock held.
    void moveAside() {
        const QString stampText =
            QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss"));
        QString target = filePath + QStringLiteral(".corrupt-") + stampText;
        for (int n = 1; QFileInfo::exists(target); ++n)
            target = filePath + QStringLiteral(".corrupt-") + stampText + u'-' + QString::number(n);
        if (::rename(nativePath.constData(), QFile::encodeName(target).constData()) == 0) {
            std::fprintf(
                stderr,
                "ondril: settings file %s was unreadable; moved aside to %s; starting with "
                "empty settings\n",
                nativePath.constData(), QFile::encodeName(target).constData());
        } else {
            std::fprintf(stderr,
                         "ondril: settings file %s was unreadable and could not be moved aside; "
                         "starting with empty settings\n",
                         nativePath.constData());
        }
    }

    // Loads the file under the lock, moving a corrupt one aside. Returns the values found; a file
    // that could not be read at all is not ours to move, and turns the store read-only.
    std::optional<QVariantMap> loadLocked(int& fd, FileStamp& readStamp) {
        int readError = 0;
        auto loaded = readFile(fd, readStamp, readError);
        if (loaded)
            return loaded;
        if (fd >= 0)
            ::close(fd);
        fd = -1;
        if (readError != 0) {
            becomeReadOnly(readError);
            return std::nullopt;
        }
        moveAside();
        readStamp = {};
        return QVariantMap{};
    }

    void refreshIfChanged() {
        if (stampOfPath(nativePath) == stamp)
            return;
        int fd = -1;
        FileStamp readStamp;
        int readError = 0;
        if (auto loaded = readFile(fd, readStamp, readError)) {
            adopt(std::move(*loaded), fd, readStamp);
            return;
        }
        if (fd >= 0)
            ::close(fd);
        // Look again under the lock before moving anything: a writer may be halfway.
        Lock lock(lockPath);
        fd = -1;
        if (auto loaded = lock.held() ? loadLocked(fd, readStamp) : std::nullopt) {
            adopt(std::move(*loaded), fd, readStamp);
            return;
        }
        if (!lock.held() && readError != 0)
            becomeReadOnly(readError);
        // What was read before stays; the file is read again once it changes.
        closeLoaded();
        stamp = stampOfPath(nativePath);
    }

    // Temporary files exist only while a writer holds the lock: any found under the lock were left
    // by a writer that died before its rename.
    void removeStaleTemporaries() const {
        const QFileInfo info(filePath);
        const QString prefix = info.fileName() + u'.';
        const QDir folder = info.absoluteDir();
        for (const QString& name :
             folder.entryList({prefix + QStringLiteral("??????")}, QDir::Files))
            QFile::remove(folder.filePath(name));
    }

    // Lock, re-read, apply the one change, write a temporary file, fsync, rename, fsync the folder.
    bool change(const QString& key, const std::optional<QVariant>& value) {
        if (readOnly || !ensureDirectory())
            return false;
        Lock lock(lockPath);
        if (!lock.held())
            return false;
        removeStaleTemporaries();
        int currentFd = -1;
        FileStamp currentStamp;
        auto current = loadLocked(currentFd, currentStamp);
        if (currentFd >= 0)
            ::close(currentFd);
        if (!current)
            return false;
        if (value)
            current->insert(key, *value);
        else
            current->remove(key);
        const auto bytes = encodeFile(*current);
        if (!bytes)
            return false;

        const QString directory = QFileInfo(filePath).absolutePath();
        QByteArray tempPath = nativePath + ".XXXXXX";
        const int fd = ::mkostemp(tempPath.data(), O_CLOEXEC);
        if (fd < 0)
            return false;
        struct stat info {};
        if (!writeAll(fd, *bytes) || ::fsync(fd) != 0 || ::fstat(fd, &info) != 0 ||
            ::rename(tempPath.constData(), nativePath.constData()) != 0) {
            ::close(fd);
            ::unlink(tempPath.constData());
            return false;
        }
        const int dirFd =
            ::open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dirFd >= 0) {
            ::fsync(dirFd);
            ::close(dirFd);
        }
        adopt(std::move(*current), fd, stampOf(info));
        return true;
    }
};

UserDefaults::UserDefaults(const QString& filePath, QObject* parent)
    : QObject(parent)
    , d(std::make_unique<Private>()) {
    d->filePath = QFileInfo(filePath).absoluteFilePath();
    d->nativePath = QFile::encodeName(d->filePath);
    d->lockPath = d->nativePath + ".lock";
    d->refreshIfChanged();
}

UserDefaults::~UserDefaults() = default;

UserDefaults& UserDefaults::standardUserDefaults() {
    static auto* defaults = new UserDefaults(standardFilePath());
    return *defaults;
}

QString UserDefaults::standardFilePath() {
    QString base = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (base.isEmpty() || !QDir::isAbsolutePath(base))
        base = QDir::homePath() + QStringLiteral("/.config");
    return base + QStringLiteral("/ondril/defaults.json");
}

QString UserDefaults::filePath() const {
    return d->filePath;
}

std::optional<QVariant> UserDefaults::objectForKey(const QString& key) const {
    d->refreshIfChanged();
    const auto it = d->values.constFind(key);
    if (it == d->values.cend())
        return std::nullopt;
    return *it;
}

bool UserDefaults::boolForKey(const QString& key) const {
    return storedBoolForKey(key).value_or(false);
}

std::optional<bool> UserDefaults::storedBoolForKey(const QString& key) const {
    const auto value = objectForKey(key);
    if (!value || value->typeId() != QMetaType::Bool)
        return std::nullopt;
    return value->toBool();
}

std::optional<QString> UserDefaults::stringForKey(const QString& key) const {
    const auto value = objectForKey(key);
    if (!value || value->typeId() != QMetaType::QString)
        return std::nullopt;
    return value->toString();
}

std::optional<QStringList> UserDefaults::stringArrayForKey(const QString& key) const {
    const auto value = objectForKey(key);
    if (!value || !isStringList(*value))
        return std::nullopt;
    return value->toStringList();
}

std::optional<QMap<QString, QString>>
UserDefaults::stringDictionaryForKey(const QString& key) const {
    const auto value = objectForKey(key);
    if (!value || value->typeId() != QMetaType::QVariantMap)
        return std::nullopt;
    QMap<QString, QString> result;
    const QVariantMap map = value->toMap();
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        if (it.value().typeId() != QMetaType::QString)
            return std::nullopt;
        result.insert(it.key(), it.value().toString());
    }
    return result;
}

std::optional<QByteArray> UserDefaults::dataForKey(const QString& key) const {
    const auto value = objectForKey(key);
    if (!value || value->typeId() != QMetaType::QByteArray)
        return std::nullopt;
    return value->toByteArray();
}

bool UserDefaults::isReadOnly() const {
    return d->readOnly;
}

QStringList UserDefaults::allKeys() const {
    d->refreshIfChanged();
    return d->values.keys();
}

bool UserDefaults::setObject(const QVariant& value, const QString& key) {
    // Normalise to the types a read gives back, and refuse what the file cannot hold.
    const auto encoded = encodeValue(value);
    if (!encoded)
        return false;
    const auto normalised = decodeValue(*encoded);
    if (!normalised)
        return false;
    return d->change(key, *normalised);
}

bool UserDefaults::setBool(bool value, const QString& key) {
    return setObject(QVariant(value), key);
}

bool UserDefaults::setString(const QString& value, const QString& key) {
    return setObject(QVariant(value), key);
}

bool UserDefaults::setStringArray(const QStringList& value, const QString& key) {
    return setObject(QVariant(value), key);
}

bool UserDefaults::setStringDictionary(const QMap<QString, QString>& value, const QString& key) {
    QVariantMap map;
    for (auto it = value.cbegin(); it != value.cend(); ++it)
        map.insert(it.key(), it.value());
    return setObject(QVariant(map), key);
}

bool UserDefaults::setData(const QByteArray& value, const QString& key) {
    return setObject(QVariant(value), key);
}

bool UserDefaults::removeObjectForKey(const QString& key) {
    return d->change(key, std::nullopt);
}

#include "moc_UserDefaults.cpp"
