#include "ui/panel/PanelText.h"

#include <QTest>

class TestPanelText : public QObject {
    Q_OBJECT

private slots:
    // A member's label in its group: rows read "the members' names (comma-separated)|the
    // member's own name|its label".
    void membersShowShortLabels_data() {
        QTest::addColumn<QString>("row");
        QTest::newRow("the shared words go") << "Studio Display Left,Studio Display Right|"
                                                "Studio Display Left|Left";
        QTest::newRow("AB and AC share no word") << "AB,AC|AB|AB";
        QTest::newRow("Studio Speakers and Studio Display")
            << "Studio Speakers,Studio Display|Studio Speakers|Speakers";
        QTest::newRow("one member")
            << "Studio Display Left|Studio Display Left|Studio Display Left";
        QTest::newRow("separators trimmed") << "Desk – Left,Desk – Right|Desk – Left|Left";
        QTest::newRow("a renamed member keeps its own name")
            << "Studio Display Left,Studio Display Right|Kitchen|Kitchen";
        QTest::newRow("nothing after the prefix") << "Monitor,Monitor 2|Monitor|Monitor";
    }
    void membersShowShortLabels() {
        QFETCH(QString, row);
        const QStringList fields = row.split(u'|');
        QCOMPARE(PanelText::shortLabel(fields[0].split(u','), fields[1]), fields[2]);
    }
};

QTEST_MAIN(TestPanelText)
#include "tst_paneltext.moc"
