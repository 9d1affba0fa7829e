#include "awake/views/StayAwakeViews.h"

#include "awake/StayAwake.h"
#include "base/Clock.h"

#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QPointer>
#include <QPushButton>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

namespace zuv {

void StayAwakeMenu::addDurations(QMenu *menu, StayAwake &awake)
{
    for (const StayAwake::Offer &offer : StayAwake::durations())
        menu->addAction(offer.title, menu, [&awake, minutes = offer.minutes] { awake.keepAwake(minutes); });
    menu->addSeparator();
    menu->addAction(QObject::tr("Until I Stop"), menu, [&awake] { awake.keepAwake(0); });
}

void StayAwakeMenu::addExtensions(QMenu *menu, StayAwake &awake)
{
    for (const StayAwake::Offer &offer : StayAwake::extensions())
        menu->addAction(offer.title, menu, [&awake, added = offer.minutes] {
            // An absolute length from now: what is left and what is added.
            awake.keepAwake(awake.minutesLeft().value_or(0) + added);
        });
    menu->addSeparator();
    menu->addAction(QObject::tr("Until I Stop"), menu, [&awake] { awake.keepAwake(0); });
}

void StayAwakeMenu::fill(QMenu *menu, StayAwake &awake, Clock &clock)
{
    if (!awake.session().active) {
        addDurations(menu->addMenu(QObject::tr("Keep Awake")), awake);
        return;
    }
    QAction *summary = menu->addAction(awake.summary(clock.date()).value_or(QString()));
    summary->setEnabled(false);
    // The summary counts down while the menu is open.
    auto *tick = new QTimer(summary);
    tick->setInterval(1000);
    QObject::connect(tick, &QTimer::timeout, summary, [summary, &awake, &clock] {
        summary->setText(awake.summary(clock.date()).value_or(QString()));
    });
    tick->start();
    if (awake.minutesLeft())
        addExtensions(menu->addMenu(QObject::tr("Extend")), awake);
    menu->addAction(QObject::tr("Allow Sleep"), menu, [&awake] { awake.allowSleep(); });
}

StayAwakeSection::StayAwakeSection(StayAwake &awake, Clock &clock, QWidget *parent)
    : QWidget(parent), m_awake(awake), m_clock(clock)
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    m_state = new QLabel;
    m_state->setObjectName(QStringLiteral("awakeState"));
    m_state->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    column->addWidget(m_state);

    auto *row = new QHBoxLayout;
    const auto menuButton = [&](const QString &title, void (*fill)(QMenu *, StayAwake &)) {
        auto *button = new QToolButton;
        button->setText(title);
        button->setPopupMode(QToolButton::InstantPopup);
        auto *menu = new QMenu(button);
        fill(menu, m_awake);
        button->setMenu(menu);
        row->addWidget(button);
        return button;
    };
    m_keep = menuButton(tr("Keep Awake"), &StayAwakeMenu::addDurations);
    m_extend = menuButton(tr("Extend"), &StayAwakeMenu::addExtensions);
    m_sleep = new QPushButton(tr("Allow Sleep"));
    connect(m_sleep, &QPushButton::clicked, this, [this] { m_awake.allowSleep(); });
    row->addWidget(m_sleep);
    row->addStretch();
    column->addLayout(row);

    auto *helperRow = new QHBoxLayout;
    m_helper = new QLabel;
    m_helper->setObjectName(QStringLiteral("awakeHelper"));
    m_helper->setWordWrap(true);
    helperRow->addWidget(m_helper, 1);
    m_allowLid = new QPushButton(tr("Allow Closed-Lid Use…"));
    m_allowLid->setToolTip(tr("Lets Zuv keep this computer awake with the lid closed. Your desktop asks you to approve it once."));
    connect(m_allowLid, &QPushButton::clicked, this, [this] { m_awake.startAllowingLidClosed(); });
    helperRow->addWidget(m_allowLid);
    column->addLayout(helperRow);

    m_error = new QLabel;
    m_error->setObjectName(QStringLiteral("awakeError"));
    m_error->setWordWrap(true);
    m_error->setStyleSheet(QStringLiteral("color: #d0312d"));
    column->addWidget(m_error);

    connect(&m_awake, &StayAwake::changed, this, &StayAwakeSection::refresh);
    // The state line follows the seconds of its countdown.
    auto *tick = new QTimer(this);
    tick->setInterval(1000);
    connect(tick, &QTimer::timeout, this, [this] {
        if (m_awake.session().active)
            refresh();
    });
    tick->start();
    refresh();
}

void StayAwakeSection::refresh()
{
    const bool active = m_awake.session().active;
    m_state->setText((active ? QStringLiteral("☕ ") : QStringLiteral("🌙 "))
                     + m_awake.summary(m_clock.date()).value_or(tr("Sleeps normally")));
    m_keep->setVisible(!active);
    m_extend->setVisible(active && m_awake.minutesLeft().has_value());
    m_sleep->setVisible(active);

    switch (m_awake.helper()) {
    case StayAwake::Status::requiresApproval:
        m_helper->setStyleSheet(QStringLiteral("color: #e08a00"));
        m_helper->setText(tr("Almost there: your desktop asks for approval before Zuv may keep this computer awake with the lid closed."));
        m_allowLid->setVisible(true);
        break;
    case StayAwake::Status::enabled:
        m_helper->setStyleSheet(QStringLiteral("color: #2e9d5b"));
        m_helper->setText(QStringLiteral("✓ ") + tr("Zuv can keep this computer awake with the lid closed."));
        m_allowLid->setVisible(false);
        break;
    default:
        m_helper->setStyleSheet(QString());
        m_helper->setText(tr("Without this, closing the lid still puts the computer to sleep. Your desktop asks you to approve it once."));
        m_allowLid->setVisible(true);
        break;
    }
    m_error->setText(m_awake.lastError().value_or(QString()));
    m_error->setVisible(m_awake.lastError().has_value());
}

} // namespace zuv
