#include "files.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>

namespace tools {
namespace {

constexpr char kAclAttribute[] = "system.posix_acl_access";

// The options of the file system itself, which is mounted at a path perhaps with others. Empty when they are unknown.
std::string FileSystemOptions(const std::string& path)
{
    struct statx info {};
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &info) == -1 || (info.stx_mask & STATX_MNT_ID) == 0) {
        return "";
    }
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string mount; std::getline(mounts, mount);) {
        std::istringstream fields(mount.substr(std::min(mount.find(" - "), mount.size())));
        std::string separator, type, source, options;
        fields >> separator >> type >> source >> options;
        if (std::stoull(mount) == info.stx_mnt_id) {
            return options;
        }
    }
    return "";
}

}  // namespace

bool FileInfo::IsAbsent() const
{
    return error == ENOENT || error == ENOTDIR;
}

FileInfo LookAt(const char* path)
{
    FileInfo file;
    file.path = path;
    struct stat link {};
    file.isLink = lstat(path, &link) == 0 && S_ISLNK(link.st_mode);
    file.error = stat(path, &file.status) == 0 ? 0 : errno;
    file.hasAcl = getxattr(path, kAclAttribute, nullptr, 0) > 0;
    return file;
}

std::optional<FileSystem> FileSystemOf(const FileInfo& directory)
{
    struct statvfs info {};
    if (statvfs(directory.path.c_str(), &info) == -1) {
        return std::nullopt;
    }
    const bool isReadOnlyHere = (info.f_flag & ST_RDONLY) != 0;
    const bool isWritable = FileSystemOptions(directory.path).compare(0, 2, "rw") == 0;
    // A total of 0 means that there is no such limit.
    return FileSystem{isReadOnlyHere && !isWritable, isReadOnlyHere, info.f_files == 0 || info.f_ffree > 0,
                      info.f_blocks == 0 || info.f_bavail > 0};
}

}  // namespace tools
