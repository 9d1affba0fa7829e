#pragma once

#include <QObject>
#include <QStringList>

namespace zuv {

class AppModel;

// The launch order of the application and what it does with the arguments of a
// later launch. Each step calls into the subsystem that owns it.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(AppModel &model, QObject *parent = nullptr);
    ~AppDelegate() override;

    static AppDelegate *shared();

    void applicationDidFinishLaunching(const QStringList &arguments);
    void applicationWillTerminate();
    // Arguments handed over by a second launch of the app.
    void open(const QStringList &arguments);
    void showSetup();

    // Whether `flag` occurs among the arguments. Flags have no parser on purpose.
    static bool has(const QStringList &arguments, const QString &flag);

private:
    void logPairing();

    AppModel &m_model;
};

} // namespace zuv
