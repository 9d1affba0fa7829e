#pragma once

#include <QByteArray>
#include <QString>

namespace zuv::RtfText {

// The plain text of an RTF document: its characters, paragraph and line breaks
// and tabs, with fonts, colours, pictures and other destinations left out.
// Reads each byte once, whatever the input; nesting beyond a sane depth is read
// as text of no group rather than remembered.
QString plain(const QByteArray &rtf);

} // namespace zuv::RtfText
