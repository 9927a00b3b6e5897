#ifndef GAKPPC_FILES_H
#define GAKPPC_FILES_H

#include <sys/stat.h>
#include <sys/types.h>

#include <optional>
#include <string>

namespace tools {

// What is at a path. Symbolic links are followed.
struct FileInfo {
    std::string path;
    int error = 0;          // of stat
    struct stat status {};  // meaningless with an error
    bool isLink = false;    // the path itself is a symbolic link
    bool hasAcl = false;    // an access control list decides, not the mode alone

    bool IsThere() const { return error == 0; }
    // Known not to be there, unlike something that we may not look at.
    bool IsAbsent() const;
    bool IsDirectory() const { return IsThere() && S_ISDIR(status.st_mode); }
    bool IsSocket() const { return IsThere() && S_ISSOCK(status.st_mode); }
    mode_t Mode() const { return status.st_mode & 07777; }
};
FileInfo LookAt(const char* path);

// Whether a file system can take another file.
struct FileSystem {
    bool isReadOnly = false;      // for everybody, as far as can be told
    bool isReadOnlyHere = false;  // at least where it is mounted here
    bool hasInodes = true;
    bool hasBlocks = true;
};
// Nothing when we may not ask.
std::optional<FileSystem> FileSystemOf(const FileInfo& directory);

}  // namespace tools

#endif
