#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QCoro/QCoroTask>

#include <optional>
#include <vector>

namespace zuv {

// One type of a copy and its bytes. Types are MIME types.
struct PasteboardContent {
    QString type;
    QByteArray data;
    bool operator==(const PasteboardContent &) const = default;
};

// The system clipboard, read in two steps so that nothing is fetched before the
// reader has decided from the offered types (and who offers them) that it wants
// it: offer() tells the types, fetch() reads the chosen ones. Reading never
// blocks the caller. changeCount grows by one per change, at once on our own
// writes, so that a reader that notes it after writing does not read its own copy.
class Pasteboard : public QObject {
    Q_OBJECT
public:
    using Item = std::vector<PasteboardContent>;

    enum class Outcome {
        read,      // what was asked for (types the owner refused are left out)
        empty,     // nobody owns the clipboard
        changed,   // the clipboard changed meanwhile: the newer change is read on its own
        expired,   // the owner did not answer in time; nothing partial is kept
        tooBig,    // beyond the size limit; nothing was kept
        concealed, // the owner marked it secret: nothing but the mark was read
        failed,    // no clipboard to read here
    };

    struct Offer {
        Outcome outcome = Outcome::failed;
        qint64 changeCount = 0;
        QStringList types;            // in the owner's order
        std::optional<qint64> ownerPid; // the process that copied, when it can be told
    };

    // What to fetch, in order. `unlessText` (pictures, which some owners render
    // at great cost) is fetched only when the fetched plain text is blank.
    struct Plan {
        QStringList fetch;
        QStringList unlessText;
    };

    struct Reading {
        Outcome outcome = Outcome::failed;
        // File lists come as one item per file; everything else is in the first.
        std::vector<Item> items;
    };

    using QObject::QObject;

    virtual qint64 changeCount() const = 0;
    // Whether changed() is emitted for each change; otherwise the reader polls.
    virtual bool watches() const = 0;
    virtual QCoro::Task<Offer> offer() = 0;
    // Reads the change `changeCount` (of an offer) by `plan`; Outcome::changed when
    // the clipboard has moved on since.
    virtual QCoro::Task<Reading> fetch(qint64 changeCount, Plan plan) = 0;

    // Our own writes: the clipboard holds these items from now on.
    virtual void write(const std::vector<Item> &items) = 0;
    virtual void clear() = 0;

    // Why the clipboard cannot be read here, if so.
    virtual QString problem() const = 0;

    static constexpr qint64 sizeLimit = 52'428'800;

signals:
    void changed();
};

// Posts the paste keys to the window in front.
class PastePoster {
public:
    virtual ~PastePoster() = default;
    // Whether keys can be posted here at all.
    virtual bool canPost() const = 0;
    // Ctrl+V, or Ctrl+Shift+V where the window in front is a terminal.
    virtual bool postPaste() = 0;
};

} // namespace zuv
