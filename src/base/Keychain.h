#pragma once

#include <QObject>
#include <QString>
#include <QCoro/QCoroTask>

#include <optional>

namespace zuv {

class SecretStore;

// The agent token, kept by the desktop's secret store under the service
// "com.kelmor.zuv.mac" and the account "agent-token". It is read once at start
// and then served from memory; changes are written through in the background,
// in order, and only the last one counts.
class Keychain : public QObject {
    Q_OBJECT
public:
    static constexpr const char *service = "com.kelmor.zuv.mac";
    static constexpr const char *account = "agent-token";

    explicit Keychain(SecretStore &store, QObject *parent = nullptr);

    // Reads the stored token; call once before anything asks for it, and again to
    // retry while the store has a problem.
    QCoro::Task<void> load();

    std::optional<QString> token() const { return m_token; }
    // Why the store could not be read (a locked keyring, a refused prompt); none
    // once a read succeeded. A token may be stored all the same.
    const std::optional<QString> &problem() const { return m_problem; }
    // Setting none deletes the stored token.
    void setToken(const std::optional<QString> &token);

    // True while a change is still being written.
    bool saving() const { return m_saving; }

private:
    QCoro::Task<void> writeLoop();

    SecretStore &m_store;
    std::optional<QString> m_token;
    std::optional<QString> m_problem;
    bool m_dirty = false;
    bool m_saving = false;
};

} // namespace zuv
