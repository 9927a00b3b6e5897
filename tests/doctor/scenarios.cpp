#include "scenarios.h"

#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace gaktest {
namespace {

namespace fs = std::filesystem;

void StartKrovasDaemon(Machine& machine, const char* umask = "0007")
{
    machine.StartDaemon(kKrova, kKrova, umask);
}

void MakeEmptyFile(const std::string& path, mode_t mode)
{
    std::ofstream(path) << std::flush;
    Machine::Chmod(path, mode);
}

// A socket file without a socket.
void LeaveSocket(Machine& machine, const std::string& path)
{
    machine.StartListener(kKrova, path, SOCK_STREAM, 0007);
    machine.StopListeners();
}

void MountDirectory(const std::string& options)
{
    Machine::Make(kDir, 0350, kKrova, kKrova);
    Machine::MountTmpfs(kDir, "mode=0350,uid=3001,gid=4001" + options);
}

void FillWithFiles(const std::string& directory)
{
    for (int i = 0; i < 100; ++i) {
        if (!std::ofstream(directory + "/" + std::to_string(i))) {
            return;
        }
    }
    throw std::runtime_error(directory + " does not get full");
}

// Those who may not connect to a daemon of krova with umask 0007, and what admits them.
#define OUTSIDER_STAYS_OUT \
    "outsider              | 1 fault:connection\n" \
    "root:outsider         | 1 fault:connection | usermod -aG krova outsider => 0\n"

}  // namespace

const std::vector<Scenario> kHealthyScenarios{
    {"OwnerOnly", [](Machine& m) { StartKrovasDaemon(m, "0077"); },
     "root krova root:krova | 0\n"
     "member outsider       | 1 fault:connection\n"
     "root:member           | 1 fault:connection | chmod g+x $DIR && chmod g+w $SOCK => 0 note:umask\n"
     "root:outsider         | 1 fault:connection | usermod -aG krova outsider && chmod g+x $DIR && chmod g+w $SOCK "
     "=> 0 note:umask\n"},

    {"Group", [](Machine& m) { StartKrovasDaemon(m); },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 0 unknown:daemon\n" OUTSIDER_STAYS_OUT},

    {"GroupOfAnOtherwiseForeignDirectory",
     [](Machine& m) {
         Machine::Chown(kHome, kRoot, kRoot);
         Machine::Make(kDir, 0770, kRoot, kKrova);
         StartKrovasDaemon(m);
     },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 0 unknown:daemon\n" OUTSIDER_STAYS_OUT},

    {"RootsDaemonForAGroup",
     [](Machine& m) {
         Machine::Chown(kHome, kRoot, kRoot);
         Machine::Make(kDir, 0350, kRoot, kKrova);
         m.StartDaemon(kRoot, kKrova, "0007");
     },
     "root                  | 0\n"
     "root:krova root:member| 0\n"
     "krova member          | 0 unknown:daemon\n" OUTSIDER_STAYS_OUT},

    {"RootsDaemonForRoot",
     [](Machine& m) {
         Machine::Chown(kHome, kRoot, kRoot);
         m.StartDaemon(kRoot, kRoot, "0022");
     },
     "root                  | 0\n"
     "krova member outsider | 1 fault:connection\n"
     "root:krova root:member root:outsider | 1 fault:connection\n"},

    {"Everybody",
     [](Machine& m) {
         Machine::Make(kDir, 0755, kKrova, kKrova);
         StartKrovasDaemon(m, "0000");
     },
     "root krova            | 0 note:access\n"
     "root:krova root:member root:outsider | 0 note:access\n"
     "member outsider       | 0 note:access unknown:daemon\n"},

    {"AccessControlListAdmitsTheOutsider",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::AddAcl(kDir, kOutsider, 1);
         Machine::AddAcl(kSock, kOutsider, 2);
     },
     "root krova            | 0\n"
     "root:krova root:member root:outsider | 0\n"
     "member outsider       | 0 unknown:daemon\n"},

    {"BeforeTheFirstStart", [](Machine&) {},
     "root krova root:krova | 3 note:connection note:directory\n"
     "member root:member    | 1 note:connection fault:directory | install -d -m 0350 -o krova -g krova $DIR "
     "=> 3 note:connection\n"
     "outsider root:outsider| 1 note:connection fault:directory | install -d -m 0350 -o krova -g krova $DIR "
     "=> 1 fault:connection\n"},

    {"DirectoryMadeByTheInstallation", [](Machine&) { Machine::Make(kDir, 0350, kKrova, kKrova); },
     "root krova member     | 3 note:connection\n"
     "root:krova root:member| 3 note:connection\n"
     "outsider root:outsider| 1 fault:connection\n"},

    {"StoppedDaemon",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StopDaemon(SIGTERM);
     },
     "root krova member     | 3 note:connection\n"
     "root:krova root:member| 3 note:connection\n"
     "outsider root:outsider| 1 fault:connection\n"},

    {"KilledDaemon",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StopDaemon(SIGKILL);
     },
     "root krova member     | 3 note:connection\n"
     "root:krova root:member| 3 note:connection\n"
     "outsider root:outsider| 1 fault:connection\n"},

    {"TapInPlace",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
     },
     "root krova            | 0 note:tap\n"
     "root:krova root:member| 0 note:tap\n"
     "member                | 0 note:tap unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:tap | usermod -aG krova outsider => 0 note:tap\n"},

    {"TapHasEnded",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         m.StopTap(SIGTERM);
     },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 0 unknown:daemon\n" OUTSIDER_STAYS_OUT},

    {"OtherPrefix",
     [](Machine& m) {
         Machine::InstallElsewhere();
         StartKrovasDaemon(m);
     },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 0 unknown:daemon\n" OUTSIDER_STAYS_OUT},

    {"Container",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.SetWrapper({"unshare", "--pid", "--net", "--fork", "--kill-child", "--mount-proc"});
     },
     "root krova member     | 0 unknown:daemon\n"
     "root:krova root:member| 0 unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection unknown:daemon | usermod -aG krova outsider => 0 unknown:daemon\n"},

    {"OverlayFileSystem",
     [](Machine& m) {
         Machine::MountOverlay(kHome);
         Machine::Chown(kHome, kKrova, kKrova);
         StartKrovasDaemon(m);
     },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 0 unknown:daemon\n" OUTSIDER_STAYS_OUT},

    {"ContainerWithAReadOnlyMount",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.SetWrapper({"unshare", "--mount", "sh", "-c",
                       "mount --bind " + kDir + " " + kDir + " && mount -o remount,bind,ro " + kDir + " && exec \"$@\"",
                       "sh"});
     },
     "root krova            | 0 note:file system\n"
     "root:krova root:member| 0 note:file system\n"
     "member                | 0 note:file system unknown:daemon\n"
     "outsider              | 1 fault:connection note:file system\n"
     "root:outsider         | 1 fault:connection note:file system unknown:daemon | usermod -aG krova outsider "
     "=> 0 note:file system\n"},

    {"WithoutProc",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.SetWrapper({"unshare", "--mount", "sh", "-c", "mount -t tmpfs none /proc && exec \"$@\"", "sh"});
     },
     "root krova member     | 0 unknown:daemon\n"
     "root:krova root:member| 0 unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection unknown:daemon | usermod -aG krova outsider => 0 unknown:daemon\n"},

    {"DaemonInAnotherNetwork", [](Machine& m) { m.StartDaemon(kKrova, kKrova, "0007", "unshare --net"); },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 0 unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection unknown:daemon | usermod -aG krova outsider => 0\n"},

    {"DaemonOfAnotherHome",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartDaemon(kKrova, kKrova, "0007",
                       "unshare --mount sh -c 'mount -t tmpfs -o uid=3001,gid=4001,mode=0755 none " + kHome +
                           " && exec \"$@\"' sh");
     },
     "root krova member     | 3 note:connection\n"
     "root:krova root:member| 3 note:connection\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection\n"},

    {"LinkedDirectory",
     [](Machine& m) {
         fs::create_directory("/home/elsewhere");
         Machine::Make("/home/elsewhere/ppc", 0350, kKrova, kKrova);
         fs::create_symlink("/home/elsewhere/ppc", kDir);
         StartKrovasDaemon(m);
     },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 0 unknown:daemon\n"
     "outsider root:outsider| 1 fault:connection\n"},

    {"LeftoverOfAnOldTap",
     [](Machine& m) {
         StartKrovasDaemon(m);
         LeaveSocket(m, kSavedSock);
     },
     "root krova            | 0 note:tap\n"
     "root:krova root:member| 0 note:tap\n"
     "member                | 0 note:tap unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:tap | usermod -aG krova outsider => 0 note:tap\n"},

    {"ReplacedLibrary",
     [](Machine& m) {
         Machine::InstallElsewhere();
         StartKrovasDaemon(m);
         const std::string library = kOtherPrefix + "/lib/libgakppc.so.1";
         fs::copy(library, library + ".new");
         fs::rename(library + ".new", library);
     },
     "root krova            | 0 note:library\n"
     "root:krova root:member| 0 note:library\n"
     "member                | 0 unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:library | usermod -aG krova outsider => 0 note:library\n"},

    {"OtherProgramOfTheDaemonsUser",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartListener(kKrova, kSock, SOCK_STREAM, 0007);
     },
     "root krova            | 0 note:library\n"
     "root:krova root:member| 0 note:library\n"
     "member                | 0 unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:library | usermod -aG krova outsider => 0 note:library\n"},

    {"FullFileSystemUnderARunningDaemon",
     [](Machine& m) {
         MountDirectory(",nr_inodes=8");
         StartKrovasDaemon(m);
         FillWithFiles(kDir);
         m.StopDaemon(SIGTERM);
         StartKrovasDaemon(m);  // its socket takes the place of the former one
     },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 0 unknown:daemon\n" OUTSIDER_STAYS_OUT},
};

const std::vector<Scenario> kFaultyScenarios;

}  // namespace gaktest
