#include "sandbox.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <netdb.h>
#include <pwd.h>
#include <sched.h>
#include <shadow.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>

namespace {

constexpr char password_hash[] = "qxZfyKCpo8PuA";  // of sandbox_password, the oldest and quickest kind

// The calls below must not call the C library's own of the same name, which they replace.
long kernel(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0) {
    register long r10 asm("r10") = d;
    register long r8 asm("r8") = e;
    register long r9 asm("r9") = f;
    long result = number;
    asm volatile("syscall"
                 : "+a"(result)
                 : "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                 : "rcx", "r11", "memory");
    if (result < 0 && result > -4096) {
        errno = static_cast<int>(-result);
        return -1;
    }
    return result;
}

long word(const void* pointer) {
    return reinterpret_cast<long>(pointer);
}

std::string absolute(int folder, const char* path) {
    if (*path == '/') {
        return path;
    }
    char link[64];
    char target[4096];
    if (folder == AT_FDCWD) {
        snprintf(link, sizeof link, "/proc/self/cwd");
    } else {
        snprintf(link, sizeof link, "/proc/self/fd/%d", folder);
    }
    const long length = kernel(SYS_readlinkat, AT_FDCWD, word(link), word(target), sizeof target);
    return length <= 0 ? "" : std::string(target, static_cast<size_t>(length)) + "/" + path;
}

// Inputs make no links, so names tell where a path leads.
bool may_change(int folder, const char* path) {
    const sandbox_state& state = sandbox();
    if (!state.closed) {
        return true;
    }
    const std::string place = std::filesystem::path(absolute(folder, path)).lexically_normal().string();
    if (place.starts_with(state.folder + "/")) {
        return true;
    }
    errno = EACCES;
    return false;
}

bool changes(uint64_t flags) {
    return (flags & O_PATH) == 0 && ((flags & (O_CREAT | O_TRUNC)) != 0 || (flags & O_ACCMODE) != O_RDONLY);
}

int guarded_open(int folder, const char* path, int flags, mode_t mode) {
    if (changes(static_cast<uint64_t>(flags)) && !may_change(folder, path)) {
        return -1;
    }
    return static_cast<int>(kernel(SYS_openat, folder, word(path), flags, mode));
}

mode_t mode_argument(int flags, va_list list) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(list, mode_t) : 0;
}

pid_t no_process() {
    sandbox_state& state = sandbox();
    ++state.processes;
    if (state.next_process <= 0) {
        errno = EAGAIN;
        return -1;
    }
    return state.next_process;
}

// One record of an account database in the caller's buffer.
struct record_buffer {
    char* at;
    char* end;
    bool full = false;

    char* put(std::string_view text) {
        if (static_cast<size_t>(end - at) <= text.size()) {
            full = true;
            return at;
        }
        char* begin = at;
        at = std::copy(text.begin(), text.end(), at);
        *at++ = 0;
        return begin;
    }
};

int give_account(bool known, passwd* record, char* buffer, size_t size, passwd** found) {
    *found = nullptr;
    if (!known) {
        return 0;
    }
    record_buffer out{buffer, buffer + size};
    record->pw_name = out.put(sandbox_user);
    record->pw_passwd = out.put("x");
    record->pw_gecos = out.put("");
    record->pw_dir = out.put(sandbox().folder + "/home");
    record->pw_shell = out.put("/bin/sh");
    record->pw_uid = geteuid();
    record->pw_gid = getegid();
    if (out.full) {
        return ERANGE;
    }
    *found = record;
    return 0;
}

int give_group(bool known, group* record, char* buffer, size_t size, group** found) {
    *found = nullptr;
    if (!known) {
        return 0;
    }
    constexpr size_t alignment = alignof(char*);
    void* start = buffer;
    if (std::align(alignment, sizeof(char*), start, size) == nullptr) {
        return ERANGE;
    }
    record->gr_mem = static_cast<char**>(start);
    record->gr_mem[0] = nullptr;
    record_buffer out{static_cast<char*>(start) + sizeof(char*), static_cast<char*>(start) + size};
    record->gr_name = out.put(sandbox_user);
    record->gr_passwd = out.put("");
    record->gr_gid = getegid();
    if (out.full) {
        return ERANGE;
    }
    *found = record;
    return 0;
}

}  // namespace

sandbox_state& sandbox() {
    static sandbox_state state;
    if (state.folder.empty()) {
        char in_memory[] = "/dev/shm/qx-fuzz-XXXXXX";
        char on_disk[] = "/tmp/qx-fuzz-XXXXXX";
        char* made = mkdtemp(in_memory);
        made = made == nullptr ? mkdtemp(on_disk) : made;
        if (made == nullptr) {
            abort();
        }
        state.folder = made;
        static const pid_t owner = getpid();
        atexit([] {
            if (getpid() == owner) {
                sandbox().closed = false;
                std::error_code ignored;
                std::filesystem::remove_all(sandbox().folder, ignored);
            }
        });
    }
    return state;
}

void sandbox_close() {
    sandbox_state& state = sandbox();
    state.processes = state.signals = state.calls = 0;
    state.closed = true;
}

void sandbox_open() {
    sandbox().closed = false;
}

extern "C" {

int open(const char* path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    const mode_t mode = mode_argument(flags, list);
    va_end(list);
    return guarded_open(AT_FDCWD, path, flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    const mode_t mode = mode_argument(flags, list);
    va_end(list);
    return guarded_open(folder, path, flags, mode);
}

// Reads six arguments whether they were given or not, as the C library's own does.
__attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept {
    long values[6];
    va_list list;
    va_start(list, number);
    for (long& value : values) {
        value = va_arg(list, long);
    }
    va_end(list);
    if (number == SYS_openat2) {
        const auto* how = reinterpret_cast<const open_how*>(values[2]);
        const auto* path = reinterpret_cast<const char*>(values[1]);
        if (changes(how->flags) && !may_change(static_cast<int>(values[0]), path)) {
            return -1;
        }
    }
    return kernel(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

int unlink(const char* path) noexcept {
    return may_change(AT_FDCWD, path) ? static_cast<int>(kernel(SYS_unlink, word(path))) : -1;
}

int unlinkat(int folder, const char* path, int flags) noexcept {
    return may_change(folder, path) ? static_cast<int>(kernel(SYS_unlinkat, folder, word(path), flags)) : -1;
}

int rmdir(const char* path) noexcept {
    return may_change(AT_FDCWD, path) ? static_cast<int>(kernel(SYS_rmdir, word(path))) : -1;
}

int mkdir(const char* path, mode_t mode) noexcept {
    return may_change(AT_FDCWD, path) ? static_cast<int>(kernel(SYS_mkdir, word(path), mode)) : -1;
}

int mkdirat(int folder, const char* path, mode_t mode) noexcept {
    return may_change(folder, path) ? static_cast<int>(kernel(SYS_mkdirat, folder, word(path), mode)) : -1;
}

int rename(const char* from, const char* to) noexcept {
    return may_change(AT_FDCWD, from) && may_change(AT_FDCWD, to)
               ? static_cast<int>(kernel(SYS_rename, word(from), word(to)))
               : -1;
}

int renameat(int from_folder, const char* from, int to_folder, const char* to) noexcept {
    return may_change(from_folder, from) && may_change(to_folder, to)
               ? static_cast<int>(kernel(SYS_renameat, from_folder, word(from), to_folder, word(to)))
               : -1;
}

int renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned flags) noexcept {
    return may_change(from_folder, from) && may_change(to_folder, to)
               ? static_cast<int>(kernel(SYS_renameat2, from_folder, word(from), to_folder, word(to), flags))
               : -1;
}

int linkat(int from_folder, const char* from, int to_folder, const char* to, int flags) noexcept {
    return may_change(to_folder, to)
               ? static_cast<int>(kernel(SYS_linkat, from_folder, word(from), to_folder, word(to), flags))
               : -1;
}

int chmod(const char* path, mode_t mode) noexcept {
    return may_change(AT_FDCWD, path) ? static_cast<int>(kernel(SYS_chmod, word(path), mode)) : -1;
}

int chown(const char* path, uid_t uid, gid_t gid) noexcept {
    return may_change(AT_FDCWD, path) ? static_cast<int>(kernel(SYS_chown, word(path), uid, gid)) : -1;
}

// The fuzzer itself may need processes, while no input runs; it makes them with the kernel's call.
pid_t fork() noexcept {
    return sandbox().closed ? no_process() : static_cast<pid_t>(kernel(SYS_fork));
}

pid_t vfork() noexcept {
    return no_process();
}

int clone(int (*)(void*), void*, int, void*, ...) noexcept {
    return no_process();
}

int posix_spawn(pid_t* process, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                char* const*, char* const*) {
    *process = no_process();
    return *process > 0 ? 0 : EAGAIN;
}

int system(const char*) {
    return no_process();
}

int execve(const char*, char* const*, char* const*) noexcept {
    abort();
}

int kill(pid_t process, int signal) noexcept {
    if (!sandbox().closed || signal == 0) {
        return static_cast<int>(kernel(SYS_kill, process, signal));
    }
    ++sandbox().signals;
    return 0;
}

int connect(int, const sockaddr*, socklen_t) {
    ++sandbox().calls;
    errno = ECONNREFUSED;
    return -1;
}

int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**) {
    return EAI_NONAME;
}

int getpwnam_r(const char* name, passwd* record, char* buffer, size_t size, passwd** found) {
    return give_account(strcmp(name, sandbox_user) == 0, record, buffer, size, found);
}

int getpwuid_r(uid_t uid, passwd* record, char* buffer, size_t size, passwd** found) {
    return give_account(uid == geteuid(), record, buffer, size, found);
}

int getgrgid_r(gid_t gid, group* record, char* buffer, size_t size, group** found) {
    return give_group(gid == getegid(), record, buffer, size, found);
}

int getgrouplist(const char*, gid_t primary, gid_t* list, int* count) {
    const int room = *count;
    *count = 1;
    if (room < 1) {
        return -1;
    }
    list[0] = primary;
    return 1;
}

int getspnam_r(const char* name, spwd* record, char* buffer, size_t size, spwd** found) {
    *found = nullptr;
    if (strcmp(name, sandbox_user) != 0) {
        return 0;
    }
    record_buffer out{buffer, buffer + size};
    *record = {};
    record->sp_namp = out.put(sandbox_user);
    record->sp_pwdp = out.put(password_hash);
    record->sp_lstchg = record->sp_max = record->sp_min = -1;
    record->sp_warn = record->sp_inact = record->sp_expire = -1;
    if (out.full) {
        return ERANGE;
    }
    *found = record;
    return 0;
}

int lckpwdf() noexcept {
    return 0;
}

int ulckpwdf() noexcept {
    return 0;
}
}
