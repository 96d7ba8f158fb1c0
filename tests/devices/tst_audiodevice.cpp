#include "devices/AudioDevice.h"

#include <QtTest>

// The pure string logic around a device: how a stored UID is recognised after the sound system
// changed its volatile parts. Rows read "input|expected".
class AudioDeviceTest : public QObject {
    Q_OBJECT

    static void addRows(const QList<const char*>& rows) {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        for (const char* row : rows)
            QTest::newRow(row) << QString(row).section(u'|', 0, -2)
                               << QString(row).section(u'|', -1);
    }

private slots:
    // The stored UID, the present ones (comma-separated) and the one that matches: the same stable
    // key (the second, third and last of at least five parts) under another UID, only one.
    void matchingUIDTakesOnlyAnUnambiguousMatch_data() {
        addRows({"usb:mic:1:2:serial|usb:mic:1:2:serial,bt:mic:1:9:serial|bt:mic:1:9:serial",
                 "a:b:c:d:e:f:g|x:b:c:y:z:g|x:b:c:y:z:g",
                 "usb:mic:1:2:serial|x:mic:1:3:serial,y:mic:1:4:serial|",
                 "usb:mic:1:2:serial|usb:mic:1:2:serial|", "usb:mic:1:2:serial|mic:1:serial|",
                 "a:b:c:d|x:b:c:y:d|", "a:b:c:d:e|x:b:c:d:f|"});
    }
    void matchingUIDTakesOnlyAnUnambiguousMatch() {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        const auto match =
            AudioDevice::matchingUID(input.section(u'|', 0, 0), input.section(u'|', 1).split(u','));
        QCOMPARE(match.value_or(QString()), expected);
    }

    void baseUIDStripsOnlyAChannelList_data() {
        addRows({"X:1,2|X", "dev:a:3|dev:a", "X:|", "X:1a|", "X|", "X:,|X"});
    }
    void baseUIDStripsOnlyAChannelList() {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(AudioDevice::baseUID(input).value_or(QString()), expected);
    }
};

QTEST_GUILESS_MAIN(AudioDeviceTest)
#include "tst_audiodevice.moc"
