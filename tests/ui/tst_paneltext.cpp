#include "ui/panel/PanelText.h"

#include <QTest>

class TestPanelText : public QObject {
    Q_OBJECT

private slots:
    void membersShowShortLabels_data() {
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<QString>("own");
        QTest::addColumn<QString>("label");
        const QStringList display = {"Studio Display Left", "Studio Display Right"};
        QTest::newRow("Left") << display << "Studio Display Left"
                              << "Left";
        QTest::newRow("AB and AC share no word") << QStringList{"AB", "AC"} << "AB"
                                                 << "AB";
        QTest::newRow("Studio Speakers and Studio Display")
            << QStringList{"Studio Speakers", "Studio Display"} << "Studio Speakers"
            << "Speakers";
        QTest::newRow("one member") << QStringList{"Studio Display Left"} << "Studio Display Left"
                                    << "Studio Display Left";
        QTest::newRow("separators trimmed")
            << QStringList{"Desk – Left", "Desk – Right"} << "Desk – Left"
            << "Left";
        QTest::newRow("a renamed member keeps its own name")
            << QStringList{"Studio Display Left", "Studio Display Right"} << "Kitchen"
            << "Kitchen";
        QTest::newRow("nothing after the prefix")
            << QStringList{"Monitor", "Monitor 2"} << "Monitor"
            << "Monitor";
    }
    void membersShowShortLabels() {
        QFETCH(QStringList, names);
        QFETCH(QString, own);
        QFETCH(QString, label);
        QCOMPARE(PanelText::shortLabel(names, own), label);
    }
};

QTEST_MAIN(TestPanelText)
#include "tst_paneltext.moc"
