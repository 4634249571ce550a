#include "platform/brine/StateDirectory.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "platform/brine/Store.h"
#include "platform/brine/StoreFile.h"

namespace Brine {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void refuse(const std::string& text) { throw StoreError(Trouble::unwritable, text); }

void requireOwner(const struct stat& status, const std::string& path) {
  if (status.st_uid == geteuid() || status.st_uid == 0) return;
  refuse(path + " belongs to user " + std::to_string(status.st_uid) + ", this process runs as " +
         std::to_string(geteuid()) + "; run it as the owner, or give it another directory");
}

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a fifo";
  if (S_ISSOCK(mode)) return "a socket";
  return "a device";
}

void requireRegular(const struct stat& status, const std::string& path) {
  if (S_ISREG(status.st_mode)) return;
  refuse(path + " is " + kindOf(status.st_mode) +
         " where a file of the store belongs; remove it, nothing else was touched");
}

void createWithParents(const std::string& directory) {
  std::error_code error;
  fs::create_directories(fs::path(directory).parent_path(), error);
  if (mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST) return;
  failed(errno == ENOENT ? ENOTDIR : errno, directory, directory);
}

}  // namespace

void prepareDirectory(const std::string& directory) {
  struct stat status {};
  if (lstat(directory.c_str(), &status) != 0) {
    if (errno != ENOENT) failed(errno, directory, directory);
    createWithParents(directory);
    if (lstat(directory.c_str(), &status) != 0) failed(errno, directory, directory);
  }
  if (S_ISLNK(status.st_mode)) {
    refuse("the state directory " + directory +
           " is a symbolic link; name the directory that it leads to");
  }
  if (!S_ISDIR(status.st_mode)) failed(ENOTDIR, directory, directory);
  requireOwner(status, directory);
  const bool isShared = status.st_mode & (S_IWGRP | S_IWOTH);
  if (isShared && !(status.st_mode & S_ISVTX)) {
    refuse("others may write to the state directory " + directory + "; chmod 0700 it");
  }
}

void requireRegularFiles(const std::string& directory, Purpose purpose) {
  for (const std::string& path : {dataPath(directory), writerPath(directory)}) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
      requireRegular(status, path);
      if (purpose == Purpose::write) requireOwner(status, path);
    } else if (errno != ENOENT) {
      failed(errno, directory, path);
    }
  }
}

int openedFile(const std::string& directory, const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (file < 0) failed(errno == ENOENT ? ENOTDIR : errno, directory, path);
  struct stat status {};
  try {
    if (fstat(file, &status) != 0) failed(errno, directory, path);
    requireRegular(status, path);
    requireOwner(status, path);
  } catch (...) {
    close(file);
    throw;
  }
  return file;
}

bool isMemory(const std::string& directory) {
  struct statfs status {};
  if (statfs(directory.c_str(), &status) != 0) return false;
  return status.f_type == TMPFS_MAGIC || status.f_type == RAMFS_MAGIC;
}

std::string currentBootId(const std::string& directory) {
  const int file = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
  if (file < 0 && errno == ENOENT) return "";
  if (file < 0) failed(errno, directory);
  char id[64];
  const ssize_t got = read(file, id, sizeof id);
  const int error = errno;
  close(file);
  if (got < 0) failed(error, directory);
  const std::string_view text(id, static_cast<size_t>(got));
  return std::string(text.substr(0, text.find('\n')));
}

}  // namespace Brine
