#include "PanelTestRig.h"

#include <QQuickView>
#include <QTest>
#include <QWindow>

class TestPanelController : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<PanelTestRig> m_rig;
    PanelController* m_panel = nullptr;

    QWindow* panelWindow() const { return m_panel->window(); }

private slots:
    void init() {
        m_rig = std::make_unique<PanelTestRig>();
        m_panel = m_rig->panel.get();
    }

    void cleanup() { m_rig.reset(); }

    void clickAwayClosesUnlessPinned_data() {
        QTest::addColumn<bool>("pinned");
        QTest::newRow("not pinned") << false;
        QTest::newRow("pinned") << true;
    }
    void clickAwayClosesUnlessPinned() {
        QFETCH(bool, pinned);
        m_rig->defaults->setBool(pinned, SettingsKeys::pinPanel);
        m_panel->show(QPoint(600, 10));
        QTRY_VERIFY(panelWindow()->isActive());

        QWindow elsewhere;
        elsewhere.resize(50, 50);
        elsewhere.show();
        elsewhere.requestActivate();
        QTRY_VERIFY(elsewhere.isActive());
        QCOMPARE(m_panel->isVisible(), pinned);
    }

    void escapeClosesAlsoWhenPinned() {
        m_rig->defaults->setBool(true, SettingsKeys::pinPanel);
        m_panel->show(QPoint(600, 10));
        QTRY_VERIFY(panelWindow()->isActive());
        QTest::keyClick(panelWindow(), Qt::Key_Escape);
        QVERIFY(!m_panel->isVisible());
        QVERIFY(m_panel->msSinceLastClose().has_value());
    }

    void heightFollowsTheContentWithTheTopEdgeFixed() {
        m_panel->setContentHeight(300);
        QVERIFY(!m_panel->isVisible());
        m_panel->show(QPoint(600, 10));
        const int top = panelWindow()->y();
        QCOMPARE(panelWindow()->height(), 380);
        m_panel->setContentHeight(500);
        QCOMPARE(panelWindow()->height(), 580);
        QCOMPARE(panelWindow()->y(), top);
    }
};

QTEST_MAIN(TestPanelController)
#include "tst_panelcontroller.moc"
