// The state directory, looked at before anything in it is opened: whose it is, who may write there,
// and whether the store's files are files.
#pragma once

#include <string>

namespace Brine {

// Makes the directory when it is absent, with mode 0700. Throws StoreError{unwritable} for a
// symbolic link, a directory of another user (but root's), and one in which others may replace
// files: where they may write, it must be sticky.
void prepareDirectory(const std::string& directory);

// Throws StoreError{unwritable} when one of the store's files is there and is a directory, a fifo,
// a device or a symbolic link, or, for a writer, another user's. Opens none of them.
enum class Purpose { write, read };
void requireRegularFiles(const std::string& directory, Purpose purpose);

// Opens a file of the state directory for reading and writing, and makes it when it is absent, with
// mode 0600. Follows no link and waits for nobody. Throws StoreError.
int openedFile(const std::string& directory, const std::string& path);

// The kernel's id of this boot; empty when it tells none. Throws StoreError when it cannot be read
// for now.
std::string currentBootId(const std::string& directory);

}  // namespace Brine
