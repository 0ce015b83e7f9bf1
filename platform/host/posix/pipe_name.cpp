#include "pipe_name.h"

#include <strings.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>

#include "platform/text.h"
#include "system_error.h"

namespace platform {

namespace {

// Takes a run of `least` backslashes, each of them possibly doubled, off the front.
bool takeSeparator(std::string_view& text, std::size_t least) {
    const std::size_t count = std::min(text.find_first_not_of('\\'), text.size());
    if (count < least || count > 2 * least) return false;
    text.remove_prefix(count);
    return true;
}

bool takeWord(std::string_view& text, std::string_view word) {
    if (text.size() < word.size() || ::strncasecmp(text.data(), word.data(), word.size()) != 0) return false;
    text.remove_prefix(word.size());
    return true;
}

// NAME of "\\.\pipe\NAME"; nothing when the name is not of this form.
std::optional<std::string_view> pipeName(std::string_view text) {
    const bool matches = takeSeparator(text, 2) && takeWord(text, ".") && takeSeparator(text, 1) &&
                         takeWord(text, "pipe") && takeSeparator(text, 1);
    return matches ? std::optional(text) : std::nullopt;
}

bool isFileName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

std::string absoluteFromEnvironment(const char* variable) {
    const char* const value = std::getenv(variable);
    return value && value[0] == '/' ? value : "";
}

bool isDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Below a directory that everybody can write to: nobody else may own the directory or look into it.
SocketPath privateDirectory() {
    std::string parent = absoluteFromEnvironment("TMPDIR");
    if (parent.empty()) parent = "/tmp";
    const std::string path = parent + "/ziqbleconnect-" + std::to_string(::geteuid());
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return {{}, fromErrno(errno)};

    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return {{}, fromErrno(errno)};
    const bool isOurs = S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
                        (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
    if (!isOurs) return {{}, fromErrno(EACCES)};
    return {path, SystemError::none};
}

SocketPath runtimeDirectory() {
    const std::string path = absoluteFromEnvironment("XDG_RUNTIME_DIR");
    if (!path.empty() && isDirectory(path)) return {path, SystemError::none};
    return privateDirectory();
}

}  // namespace

SocketPath socketPath(std::wstring_view name) {
    const std::string text = toUtf8(name);
    // A path ends at a zero for the system: it would be cut.
    if (text.empty() || text.find('\0') != std::string::npos) return {{}, fromErrno(EINVAL)};

    SocketPath result{text, SystemError::none};
    if (const auto fileName = pipeName(text)) {
        if (!isFileName(*fileName)) return {{}, fromErrno(EINVAL)};
        result = runtimeDirectory();
        if (result.error != SystemError::none) return result;
        result.path.append("/").append(*fileName);
    }
    if (result.path.size() >= sizeof sockaddr_un::sun_path) return {{}, fromErrno(ENAMETOOLONG)};
    return result;
}

}  // namespace platform
