// The check of the state directory before anything in it is opened: its owner, its permissions,
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

// Whether the directory is memory: only then do its files end with this boot of the machine.
bool isMemory(const std::string& directory);

// The kernel's id of this boot; empty when it tells none.
std::string currentBootId();

}  // namespace Brine
