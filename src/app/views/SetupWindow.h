#pragma once

#include <QWidget>

#include <functional>

class QCheckBox;
class QLabel;
class QPushButton;
class QVBoxLayout;

namespace zuv {

class AppModel;

// The setup guide: from a fresh install to a paired computer whose tools are in
// place. It only reads the model and calls its operations.
class SetupWindow : public QWidget {
    Q_OBJECT
public:
    explicit SetupWindow(AppModel &model, QWidget *parent = nullptr);

    // Where the awake session's controls go, once there are some.
    QVBoxLayout *stayAwakeSlot() const { return m_stayAwakeSlot; }
    std::function<bool()> stayAwakeEnabled;

    // Reads the model again (it also happens on each of its changes).
    void refresh();

protected:
    void showEvent(QShowEvent *event) override;

private:
    QWidget *step(int number, QLabel **mark, QLabel **title, QVBoxLayout **body);

    AppModel &m_model;
    QLabel *m_marks[4] = {};
    QLabel *m_titles[4] = {};
    QLabel *m_pairingText = nullptr;
    QPushButton *m_pairButton = nullptr;
    QWidget *m_codeView = nullptr;
    QLabel *m_qr = nullptr;
    QLabel *m_code = nullptr;
    QLabel *m_accessReason = nullptr;
    QLabel *m_screenGranted = nullptr;
    QPushButton *m_screenButton = nullptr;
    QLabel *m_keysGranted = nullptr;
    QPushButton *m_keysButton = nullptr;
    QWidget *m_restart = nullptr;
    QLabel *m_claude = nullptr;
    QWidget *m_installer = nullptr;
    QPushButton *m_checkAgain = nullptr;
    QLabel *m_codex = nullptr;
    QCheckBox *m_atLogin = nullptr;
    QLabel *m_error = nullptr;
    QVBoxLayout *m_stayAwakeSlot = nullptr;
    QString m_shownCode;
};

} // namespace zuv
