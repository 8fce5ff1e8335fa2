// Which names the file protocol carries and where a name may be read or written in a
// folder: one policy for serving and pulling alike, so that what a folder lists is
// what it serves and what a pull writes. Also where a download is kept until it is
// checked, the name of a pull's lock file, and how many parts a file is sent in.
//
// Free functions without state; any thread.
#pragma once

#include <QString>

#include <cstdint>

namespace Dovel {
namespace PathPolicy {

// True for a name the protocol can carry: "/" then components separated by "/", none
// empty, "." or "..", no ".." anywhere, none of \ : * ? " < > and no control
// characters, at most Limits::MaxFileNameBytes.
bool isCarriableName(const QString& name);
// True when a canonical path is the canonical root or lies below it.
bool isInside(const QString& canonicalRoot, const QString& canonicalPath);
// The absolute path of `name` below a canonical root when it stays inside the root after
// resolving symbolic links (the nearest existing ancestor is resolved for a missing
// file); empty when the name is not carriable or leads outside.
QString resolveInside(const QString& canonicalRoot, const QString& name);
// root + name when no component of it below the root is a symbolic link (the file
// itself may be missing); empty otherwise or when the name is not carriable.
QString resolveLinkFree(const QString& canonicalRoot, const QString& name);
// root + name when it is a regular file reached through no symbolic link below the
// canonical root, so that it is its own canonical path; empty otherwise, and the caller
// resolves the path in full. Costs an lstat() per component of the name only.
QString linkFreeFile(const QString& canonicalRoot, const QString& name);

// The path of the open file `fd` as the system names it now (empty if it cannot tell):
// compared with the path that was checked (absolute, free of links) and opened, it
// shows a folder on the way that a link replaced in between, and the file must not be
// used.
QString openedPath(int fd);

// The ending of every temporary download file; no walk lists such a file.
extern const QString TempSuffix;
// Where a download of the file at `target` (an absolute path) is written until it is
// checked: target + TempSuffix, or, when that would pass the longest name a file system
// takes, a hidden name in the same folder derived from the file's name.
QString tempPathFor(const QString& target);
// The name of the lock file a pull holds in its folder's root; no walk lists it.
extern const QString LockFileName;

// The parts of a file of `size` bytes in parts of `partSize`, rounded up.
int64_t partCount(int64_t size, int64_t partSize);

} // namespace PathPolicy
} // namespace Dovel
