// Preloaded into the tests of a cross build and into every program they start: executes a program for the emulated
// processor by handing it to the emulator. The tests' programs start each other through shells, scripts and fork, and
// the kernel alone can do this only where binfmt_misc is set up, which needs privileges that change the whole machine.
//
// Built twice, for the machine and for the emulated processor: both kinds of programs execute programs.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <string.h>
#include <unistd.h>

static const char kEmulator[] = GAKPPC_EMULATOR;
enum { kMachine = EM_AARCH64, kEmulatorWords = 4 };

typedef int (*Execve)(const char*, char* const[], char* const[]);
typedef int (*Spawn)(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*, char* const[],
                     char* const[]);

static Execve realExecve;
static Execve realExecvpe;
static Spawn realSpawn;
static Spawn realSpawnp;

static void Find(void* function, const char* name)
{
    *(void**)function = dlsym(RTLD_NEXT, name);
}

// At the start: a forked child of a program with threads may not look symbols up.
__attribute__((constructor)) static void FindRealFunctions(void)
{
    Find(&realExecve, "execve");
    Find(&realExecvpe, "execvpe");
    Find(&realSpawn, "posix_spawn");
    Find(&realSpawnp, "posix_spawnp");
}

// Whether it is a program for the emulated processor. A plain name is one that is looked for in PATH: the machine's
// own.
static bool IsEmulated(const char* path)
{
    Elf64_Ehdr header;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return false;
    }
    const bool whole = read(fd, &header, sizeof(header)) == (ssize_t)sizeof(header);
    close(fd);
    return whole && memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_machine == kMachine;
}

static bool IsEmulatedProgram(const char* file)
{
    return strchr(file, '/') != NULL && IsEmulated(file);
}

static size_t CountWords(char* const argv[])
{
    size_t count = 0;
    while (argv[count] != NULL) {
        ++count;
    }
    return count;
}

// The emulator's command line for a program's: `words` has room for kEmulatorWords more than argv.
static void EmulatorWords(const char* path, char* const argv[], char* words[])
{
    words[0] = (char*)kEmulator;
    words[1] = "-0";
    words[2] = argv[0] != NULL ? argv[0] : "";
    words[3] = (char*)path;
    size_t i = 1;
    for (; argv[0] != NULL && argv[i] != NULL; ++i) {
        words[kEmulatorWords + i - 1] = argv[i];
    }
    words[kEmulatorWords + i - 1] = NULL;
}

int execve(const char* path, char* const argv[], char* const envp[])
{
    if (!IsEmulated(path)) {
        return realExecve(path, argv, envp);
    }
    char* words[CountWords(argv) + kEmulatorWords + 1];
    EmulatorWords(path, argv, words);
    return realExecve(kEmulator, words, envp);
}

int execvpe(const char* file, char* const argv[], char* const envp[])
{
    return IsEmulatedProgram(file) ? execve(file, argv, envp) : realExecvpe(file, argv, envp);
}

int execv(const char* path, char* const argv[])
{
    return execve(path, argv, environ);
}

int execvp(const char* file, char* const argv[])
{
    return execvpe(file, argv, environ);
}

// Collects the words of a variadic call, up to and with the null pointer, in `argv`, and runs the statement after it.
#define WITH_WORDS(first, statement) \
    va_list list; \
    size_t count = 1; \
    va_start(list, first); \
    while (va_arg(list, char*) != NULL) { \
        ++count; \
    } \
    va_end(list); \
    char* argv[count + 1]; \
    argv[0] = (char*)(first); \
    va_start(list, first); \
    for (size_t i = 1; i <= count; ++i) { \
        argv[i] = va_arg(list, char*); \
    } \
    va_end(list); \
    statement

int execl(const char* path, const char* word, ...)
{
    WITH_WORDS(word, return execve(path, argv, environ);)
}

int execlp(const char* file, const char* word, ...)
{
    WITH_WORDS(word, return execvpe(file, argv, environ);)
}

static int SpawnEmulated(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                         const posix_spawnattr_t* attributes, char* const argv[], char* const envp[])
{
    char* words[CountWords(argv) + kEmulatorWords + 1];
    EmulatorWords(path, argv, words);
    return realSpawn(pid, kEmulator, actions, attributes, words, envp);
}

// The emulator's vfork is a fork, from which the failure of an exec does not come back.
static int CannotSpawn(const char* file)
{
    return strchr(file, '/') != NULL && access(file, X_OK) == -1 ? errno : 0;
}

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const argv[], char* const envp[])
{
    const int error = CannotSpawn(path);
    if (error != 0) {
        return error;
    }
    return (IsEmulated(path) ? SpawnEmulated : realSpawn)(pid, path, actions, attributes, argv, envp);
}

int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const argv[], char* const envp[])
{
    const int error = CannotSpawn(file);
    if (error != 0) {
        return error;
    }
    return (IsEmulatedProgram(file) ? SpawnEmulated : realSpawnp)(pid, file, actions, attributes, argv, envp);
}
