#pragma once

#include "base/Error.h"

#include <QByteArray>
#include <QString>
#include <QUuid>

#include <optional>
#include <vector>

class QMimeData;

namespace zuv {

// An attachment on its way to the hub: always a file on disk, so that the upload
// streams it. Pictures pasted from the clipboard and copies of picked files live
// in a private folder of ours, removed once sent or dropped.
struct OutgoingFile {
    QUuid id;
    QString path; // a local file
    QString name; // shown and sent
    QString mime;

    // Takes the file where it is; nothing is read.
    explicit OutgoingFile(const QString &path);

    // A PNG made from any picture Qt can decode, written to the private folder;
    // none when the data is no picture or cannot be written.
    static std::optional<OutgoingFile> image(const QByteArray &data);
    // A copy in the private folder, so that the original may change or go.
    // Throws Error when the file cannot be copied.
    static OutgoingFile copy(const QString &path);
    // What a drop or a paste offers: local files as they are, else a picture as
    // PNG. A file that is not there is dropped silently.
    static std::vector<OutgoingFile> load(const QMimeData &data);

    // Whether the file is one of ours in the private folder.
    bool temporary() const;
    // Removes the file if it is one of ours; the person's own files stay.
    void discard() const;

    // The private folder; made on first use.
    static QString folder();
    // The MIME type by the file's name, "application/octet-stream" when it tells none.
    static QString mimeFor(const QString &path);
    // Removes what earlier runs left behind.
    static void sweep();

    bool operator==(const OutgoingFile &other) const { return id == other.id; }
};

} // namespace zuv
