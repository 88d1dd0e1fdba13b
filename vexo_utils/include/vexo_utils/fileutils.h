// Everyday work on files and folders: taking paths apart, looking at files, making changes durable,
// copying, moving, creating and removing, reading whole files, waiting for files.
//
// Paths:     "/" is the only separator. `dirfd` is an open folder that relative paths start from,
//            as in openat(2), or AT_FDCWD for the working directory; absolute paths ignore it.
//            A null path fails.
// Threads:   all functions may be called from any thread, one at a time for an object. Between two
//            system calls others may change the same files: what was found may be outdated.
// Ownership: descriptors that are given stay the caller's and open; those opened here are
//            close-on-exec and closed again, except for what opendirat and openTmpFStream hand out.
// Failure:   false, or nothing for a value, logged at error level with errno where a call failed;
//            "silent" means that nothing is logged. Out-parameters are untouched then, unless said
//            otherwise. Nothing throws.
#pragma once

#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <dirent.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <vexo_utils/export.h>

static_assert(sizeof(off_t) == 8, "build with -D_FILE_OFFSET_BITS=64, as the library is");

// ---- paths as text: no file is looked at ----

// What is before the last "/", one "/" at the end not counted: "/a" for "/a/b" and for "/a/b/",
// "/" for "/a", "." where there is none.
VEXO_UTILS_API std::string dirName(std::string path);

// What is after the last "/": "b" for "/a/b", but "" for "/a/b/".
VEXO_UTILS_API std::string baseName(std::string path);

// As dirname(3) and basename(3) of POSIX, but the argument stays as it is and the result is the
// caller's. All "/" at the end are passed over: "/a" and "b" for "/a//b//"; "/" and "/" for "/";
// "." and "." for "".
VEXO_UTILS_API std::string dirname_safe(const std::string& path);
VEXO_UTILS_API std::string basename_safe(const std::string& path);

// The absolute path without ".", ".." and superfluous "/": "/a/c" for "/a/./b/..//c/". A relative
// path starts from the working directory, and above "/" there is only "/". Where a piece is a
// symbolic link, ".." after it may lead elsewhere than here: use resolvePath then.
// "" for an empty path (silent), or without a working directory ("Failed to getcwd()").
VEXO_UTILS_API std::string normalizePath(const std::string& path);

// The absolute path of what is there, without symbolic links, as realpath(3).
// "" when a piece is missing or cannot be looked into: "Failed to resolve '%s'".
VEXO_UTILS_API std::string resolvePath(const std::string& path);

// ---- looking at files; symbolic links are followed unless said otherwise ----

// Silent. `followLinks` false: a symbolic link exists even if it leads nowhere.
VEXO_UTILS_API bool fileExists(const char* path, bool followLinks, int dirfd);
VEXO_UTILS_API bool isDir(const std::string& path, int dirfd);
VEXO_UTILS_API bool isFile(const std::string& path, int dirfd);  // a regular one
// A folder on a file system that is not mounted read-only; permissions are not looked at.
VEXO_UTILS_API bool isDirRW(const std::string& path);

// False: "Failed to get stat of '%s'", and the last two then add "Failed".
VEXO_UTILS_API bool fileStat(const std::string& path, struct stat& st, int dirfd);
// Nanoseconds since the epoch; for times before it, that number modulo 2^64.
VEXO_UTILS_API bool lastModTime(const std::string& path, uint64_t& out, int dirfd);
VEXO_UTILS_API bool fileSize(const std::string& path, uint64_t& out, int dirfd);  // bytes

// ---- reading ----

// The whole content, also of files without a size, such as those of /proc. Files of 4 GiB and more
// fail. Nothing: "Unable to open '%s'", "Unable to read '%s'".
VEXO_UTILS_API std::optional<std::string> readFromFile(const std::string& path, int dirfd);

// Calls `onLine` with each line, without its line feed, until it returns false; what follows the
// last line feed is a line unless it is empty. Other bytes, "\r" among them, are passed through.
// True also when it was ended by `onLine`. False: as readFromFile, after the lines before the
// fault; EINVAL for an empty `onLine`.
VEXO_UTILS_API bool forEachLine(const std::string& path,
                                const std::function<bool(const std::string& line)>& onLine,
                                int dirfd);

// Replaces `out` by the names in the folder, sorted by their bytes, without "." and "..".
// False: as opendirat, or "Unable to read '%s'".
VEXO_UTILS_API bool listFolder(const std::string& path, std::vector<std::string>& out, int dirfd);

// Replaces `out` by the paths that match the glob(7) pattern, in their order; "~" and "~user" at
// its beginning are home folders. No match and an error both leave it empty, silently.
VEXO_UTILS_API void glob(const char* pattern, std::vector<std::string>& out);

// opendir(3) of a folder below another one; `flags` as for openat(2), to which O_CLOEXEC is added.
// The caller calls closedir. Null: "Failed to openat '%s'", or "Failed to fdopendir %d" with the
// descriptor (ENOTDIR: it is no folder).
VEXO_UTILS_API DIR* opendirat(int dirfd, const char* path, int flags);

// ---- making changes durable: wait until the storage has them, see fsync(2); silent ----

// The entries of a folder: what was created, renamed or removed in it.
VEXO_UTILS_API bool syncDir(const char* path, int dirfd);
// A file's content and, with `syncParent`, the folder that it is in.
VEXO_UTILS_API bool syncFile(const char* path, bool syncParent, int dirfd);

// ---- creating ----

// Sets the times of a file to now; with `create`, makes it (0666 less the umask) if it is missing.
// A file that cannot be opened to read and write, such as a folder, fails although its times were
// set. False: "Couldn't open() path: %s", a warning where the times could not be set.
VEXO_UTILS_API bool touchFile(const std::string& path, bool create, int dirfd);

// Makes every missing folder of a path, with `mode` less the umask; with `syncParent`, each is
// made durable. Silent. False leaves those that were made. A symbolic link that leads nowhere and a
// file in the place of a folder are failures, an empty path too.
VEXO_UTILS_API bool mkdirP(const std::string& path, bool syncParent, unsigned int mode, int dirfd);

// A stream that knows its file.
struct NamedFStream : std::fstream {
  std::string name;  // of the file that is open
};

// Makes a new, empty file that only its owner can use (0600), and opens `stream` on it to read and
// write, instead of what it had open. The name is `pattern`, with its last six characters, which
// must be "XXXXXX", replaced. The caller removes the file. As with every std::fstream, the stream's
// descriptor is not close-on-exec.
// False: "error: failed to create temporary file". Where only the stream could not be opened, the
// result is true and the stream's fail bit is set: check both.
VEXO_UTILS_API bool openTmpFStream(const std::string& pattern, NamedFStream& stream);

// ---- copying and moving ----

// Copies the whole content without passing it through the process, see splice(2), then owner and
// mode; the descriptors' positions are neither used nor moved. Both must be seekable, `dstFd` not
// opened for append. What the destination holds beyond the source's size stays. Owner and mode that
// may not be given are only warnings ("Failed to fchown", "Failed to fchmod"); without the owner,
// set-user-ID and set-group-ID are not given either.
// False, with a part copied: "Unable to fstat()", "Failed to pipe()", "Failed to splice() from src
// to pipe" (errno 0: it has become shorter), "Failed to splice() from pipe to dst". Silent for a
// negative descriptor.
VEXO_UTILS_API bool copyFile(int srcFd, int dstFd);

// Copies a regular file to `dst`, which is created or overwritten; what symbolic links lead to is
// meant, on both sides. Not synced, see syncFile.
// False: "Unable to access '%s'" for `src`; "Unable to open '%s'" for `src` (EISDIR, EINVAL: it is
// no regular file) or for `dst` (EINVAL: both are the same file), which is as it was then; or as
// above. Silent for a null path.
VEXO_UTILS_API bool copyFile(const char* src, const char* dst, int srcDirFd, int dstDirFd);

// "/bin/cp -r src dst": into `dst` where that is a folder, else as `dst`. Waits for it. Silent,
// but cp writes to standard error what is wrong.
VEXO_UTILS_API bool cpR(const std::string& src, const std::string& dst);

// rename(2); for one regular file also from one file system to another, by copyFile and rmRf: the
// source goes only after a complete copy, and a reader may see `to` incomplete.
// False: "Could not rename file '%s' -> '%s'"; "Could not copy file (fallback to rename) '%s' ->
// '%s'", with the source kept and `to` perhaps incomplete; "Could not delete src file (fallback to
// rename) '%s'", with both there (EBUSY: another file has taken the name since, and stays).
VEXO_UTILS_API bool renameFile(const char* from, const char* to, int fromDirFd, int toDirFd);

// ---- removing ----

// Removes a file, or a folder with all that is in it. Symbolic links are removed, never followed,
// also not one that takes the place of a folder meanwhile. Goes on after a failure. Silent, except
// for folders that cannot be opened, as opendirat. A tree takes one descriptor for each level: what
// is too deep for the limit of descriptors stays. False when anything stays or nothing was there.
VEXO_UTILS_API bool rmRf(const std::string& path, int dirfd);

// ---- waiting ----

// Waits until all paths exist at once, with symbolic links followed; at most `timeoutMs` (0: only
// looks, UINT_MAX: no limit). Learns of changes at once by inotify(7); of those that it does not
// report (/proc, /sys, other machines' changes to network file systems, the target of a link), or
// when no inotify instance is left, within half a second.
// False after the time, and at once for an empty path; silent.
VEXO_UTILS_API bool waitForFiles(const std::vector<std::string>& paths, unsigned int timeoutMs);
