#include "app/views/SetupWindow.h"

#include "app/SetupGuide.h"
#include "link/AppModel.h"
#include "surface/views/Headline.h"

#include "app/views/Tray.h"

#include <QCheckBox>
#include <QClipboard>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

namespace zuv {

namespace {

QLabel *wrappedLabel(const QString &text = {}, QWidget *parent = nullptr)
{
    auto *label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return label;
}

QLabel *secondary(const QString &text)
{
    QLabel *label = wrappedLabel(text);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

} // namespace

SetupWindow::SetupWindow(AppModel &model, QWidget *parent) : QWidget(parent, Qt::Window), m_model(model)
{
    Tray::loadIcons();
    setWindowTitle(QStringLiteral("Zuv"));
    setWindowIcon(QIcon(QStringLiteral(":/zuv/app.svg")));
    resize(520, 640);

    auto *outer = new QVBoxLayout(this);
    auto *scroll = new QScrollArea;
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    outer->addWidget(scroll);
    auto *content = new QWidget;
    scroll->setWidget(content);
    auto *column = new QVBoxLayout(content);
    column->setSpacing(14);

    // Header
    auto *header = new QHBoxLayout;
    auto *icon = new QLabel;
    icon->setPixmap(QIcon(QStringLiteral(":/zuv/app.svg")).pixmap(56, 56));
    header->addWidget(icon);
    auto *names = new QVBoxLayout;
    names->addWidget(headline(tr("Zuv for Linux"), 1.5, Qt::AlignLeft));
    names->addWidget(secondary(tr("Your AI agents and this computer, from your iPhone.")));
    header->addLayout(names, 1);
    column->addLayout(header);

    QVBoxLayout *body = nullptr;

    // 1: pairing
    column->addWidget(step(1, &m_marks[0], &m_titles[0], &body));
    m_pairingText = wrappedLabel();
    m_pairingText->setObjectName(QStringLiteral("pairingText"));
    body->addWidget(m_pairingText);
    m_pairButton = new QPushButton;
    m_pairButton->setObjectName(QStringLiteral("pairButton"));
    connect(m_pairButton, &QPushButton::clicked, this, [this] { m_model.startPairing(); });
    body->addWidget(m_pairButton, 0, Qt::AlignLeft);
    m_codeView = new QWidget;
    auto *codeRow = new QHBoxLayout(m_codeView);
    codeRow->setContentsMargins(0, 0, 0, 0);
    m_qr = new QLabel;
    m_qr->setObjectName(QStringLiteral("qr"));
    m_qr->setFixedSize(180, 180);
    m_qr->setScaledContents(true);
    codeRow->addWidget(m_qr);
    auto *codeText = new QVBoxLayout;
    m_code = new QLabel;
    m_code->setObjectName(QStringLiteral("code"));
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    mono.setBold(true);
    mono.setPointSizeF(mono.pointSizeF() * 1.6);
    m_code->setFont(mono);
    m_code->setTextInteractionFlags(Qt::TextSelectableByMouse);
    codeText->addWidget(m_code);
    codeText->addWidget(secondary(SetupGuide::scanHint()));
    codeText->addWidget(secondary(tr("Waiting for your iPhone…")));
    codeText->addStretch();
    codeRow->addLayout(codeText, 1);
    body->addWidget(m_codeView);

    // 2: screen and keys
    column->addWidget(step(2, &m_marks[1], &m_titles[1], &body));
    body->addWidget(wrappedLabel(tr("So you can see and control this computer from the Zuv app.")));
    m_accessReason = secondary({});
    body->addWidget(m_accessReason);
    const auto grantRow = [&](const QString &name, QLabel **granted, QPushButton **button, auto request) {
        auto *row = new QHBoxLayout;
        *granted = new QLabel(QStringLiteral("✓ ") + tr("%1 Allowed").arg(name));
        *button = new QPushButton(tr("Allow %1…").arg(name));
        connect(*button, &QPushButton::clicked, this, [this, request] { (m_model.*request)(); });
        row->addWidget(*granted);
        row->addWidget(*button);
        row->addStretch();
        body->addLayout(row);
    };
    grantRow(tr("Screen Recording"), &m_screenGranted, &m_screenButton, &AppModel::requestScreenRecording);
    grantRow(tr("Accessibility"), &m_keysGranted, &m_keysButton, &AppModel::requestAccessibility);
    m_restart = new QWidget;
    auto *restartRow = new QHBoxLayout(m_restart);
    restartRow->setContentsMargins(0, 0, 0, 0);
    restartRow->addWidget(secondary(tr("Switched them on in your desktop's settings? Screen Recording counts after Zuv starts again.")), 1);
    auto *reopen = new QPushButton(tr("Quit & Reopen"));
    connect(reopen, &QPushButton::clicked, this, [this] { m_model.relaunch(); });
    restartRow->addWidget(reopen);
    body->addWidget(m_restart);

    // 3: the tools
    column->addWidget(step(3, &m_marks[2], &m_titles[2], &body));
    m_claude = wrappedLabel();
    m_claude->setObjectName(QStringLiteral("claudeStatus"));
    body->addWidget(m_claude);
    m_installer = new QWidget;
    auto *installRow = new QHBoxLayout(m_installer);
    installRow->setContentsMargins(0, 0, 0, 0);
    auto *command = new QLabel(SetupGuide::claudeInstaller());
    command->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    command->setTextInteractionFlags(Qt::TextSelectableByMouse);
    installRow->addWidget(command, 1);
    auto *copy = new QPushButton(tr("Copy"));
    connect(copy, &QPushButton::clicked, this, [] { QGuiApplication::clipboard()->setText(SetupGuide::claudeInstaller()); });
    installRow->addWidget(copy);
    body->addWidget(m_installer);
    m_checkAgain = new QPushButton(tr("Check Again"));
    m_checkAgain->setObjectName(QStringLiteral("checkAgain"));
    connect(m_checkAgain, &QPushButton::clicked, this, [this] { m_model.startCheckingTools(); });
    body->addWidget(m_checkAgain, 0, Qt::AlignLeft);
    m_codex = secondary({});
    m_codex->setObjectName(QStringLiteral("codexStatus"));
    body->addWidget(m_codex);

    // 4: staying awake
    column->addWidget(step(4, &m_marks[3], &m_titles[3], &body));
    body->addWidget(secondary(tr("Keep this computer reachable from your iPhone while you're away, even with the lid closed.")));
    m_stayAwakeSlot = new QVBoxLayout;
    body->addLayout(m_stayAwakeSlot);

    m_atLogin = new QCheckBox(tr("Open Zuv when I log in"));
    m_atLogin->setObjectName(QStringLiteral("atLogin"));
    connect(m_atLogin, &QCheckBox::clicked, this, [this](bool on) { m_model.setLaunchAtLogin(on); });
    column->addWidget(m_atLogin);
    m_error = wrappedLabel();
    m_error->setObjectName(QStringLiteral("error"));
    m_error->setStyleSheet(QStringLiteral("color: #d0312d"));
    column->addWidget(m_error);
    column->addStretch();

    auto *foot = new QHBoxLayout;
    foot->addStretch();
    auto *done = new QPushButton(tr("Done"));
    done->setObjectName(QStringLiteral("done"));
    done->setDefault(true);
    connect(done, &QPushButton::clicked, this, &QWidget::close);
    foot->addWidget(done);
    outer->addLayout(foot);

    for (auto signal : {&AppModel::pairingChanged, &AppModel::lastErrorChanged, &AppModel::permissionsChanged,
                        &AppModel::toolsChanged})
        connect(&m_model, signal, this, &SetupWindow::refresh);
    refresh();
}

QWidget *SetupWindow::step(int number, QLabel **mark, QLabel **title, QVBoxLayout **body)
{
    auto *box = new QWidget;
    auto *row = new QHBoxLayout(box);
    row->setContentsMargins(0, 0, 0, 0);
    *mark = new QLabel(QString::number(number));
    (*mark)->setAlignment(Qt::AlignCenter);
    (*mark)->setFixedSize(26, 26);
    row->addWidget(*mark, 0, Qt::AlignTop);
    auto *column = new QVBoxLayout;
    *title = new QLabel;
    QFont bold = (*title)->font();
    bold.setBold(true);
    (*title)->setFont(bold);
    column->addWidget(*title);
    row->addLayout(column, 1);
    *body = column;
    return box;
}

void SetupWindow::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    m_model.startCheckingTools();
}

void SetupWindow::refresh()
{
    const auto steps = SetupGuide::steps(m_model, stayAwakeEnabled && stayAwakeEnabled());
    for (size_t i = 0; i < steps.size(); ++i) {
        m_titles[i]->setText(steps[i].title);
        m_marks[i]->setText(steps[i].done ? QStringLiteral("✓") : QString::number(steps[i].number));
        m_marks[i]->setStyleSheet(steps[i].done
                                      ? QStringLiteral("border-radius: 13px; background: #2e9d5b; color: white; font-weight: bold")
                                      : QStringLiteral("border-radius: 13px; border: 1px solid palette(mid)"));
    }

    const AppModel::Pairing &pairing = m_model.pairing();
    const bool showing = pairing.state == AppModel::Pairing::State::showing;
    m_pairingText->setText(SetupGuide::pairingText(m_model));
    m_pairingText->setVisible(!showing);
    m_pairButton->setText(SetupGuide::pairingButton(m_model));
    m_pairButton->setVisible(!showing);
    m_codeView->setVisible(showing);
    if (showing && pairing.code != m_shownCode) {
        m_shownCode = pairing.code;
        // The link only ever shows as a QR code; a text that cannot be encoded shows none.
        const QImage qr = AppModel::qr(AppModel::pairingLink(pairing.code));
        m_qr->setPixmap(qr.isNull() ? QPixmap() : QPixmap::fromImage(qr));
        m_qr->setVisible(!qr.isNull());
        m_code->setText(SetupGuide::displayCode(pairing.code));
    }

    m_accessReason->setText(m_model.accessReason());
    m_screenGranted->setVisible(m_model.screenRecording());
    m_screenButton->setVisible(!m_model.screenRecording());
    m_keysGranted->setVisible(m_model.accessibility());
    m_keysButton->setVisible(!m_model.accessibility());
    m_restart->setVisible(SetupGuide::offersRestart(m_model));

    const ToolsProbe &tools = m_model.tools();
    m_claude->setText(SetupGuide::claudeStatus(tools));
    m_installer->setVisible(!tools.claude);
    m_checkAgain->setEnabled(!m_model.checkingTools());
    m_checkAgain->setText(m_model.checkingTools() ? tr("Checking…") : tr("Check Again"));
    m_codex->setText(SetupGuide::codexStatus(tools));

    m_atLogin->setChecked(m_model.launchAtLogin());
    m_error->setText(m_model.lastError().value_or(QString()));
    m_error->setVisible(m_model.lastError().has_value());
}

} // namespace zuv
