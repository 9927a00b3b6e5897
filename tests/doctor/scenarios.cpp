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

#include "sanitizer_options.h"

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

void FillWithBytes(const std::string& path)
{
    std::ofstream file(path);
    for (int i = 0; i < 1000 && file; ++i) {
        file << std::string(4096, ' ') << std::flush;
    }
    if (file) {
        throw std::runtime_error(path + " does not fill its file system");
    }
}

// Those who may not connect to a daemon of krova with umask 0007, and what admits them.
#define OUTSIDER_STAYS_OUT \
    "outsider              | 1 fault:connection\n" \
    "root:outsider         | 1 fault:connection | usermod -aG krova outsider => 0\n"

// A daemon of krova with umask 0007 in a directory that anybody may write to.
constexpr char kOnlyTheDirectoryIsOpen[] =
    "root krova            | 1 fault:directory mode | chmod o-w $DIR => 0\n"
    "root:krova root:member| 1 fault:directory mode | chmod o-w $DIR => 0\n"
    "member                | 1 fault:directory mode unknown:daemon | chmod o-w $DIR => 0 unknown:daemon\n"
    "outsider              | 1 fault:connection fault:directory mode unknown:daemon "
    "| usermod -aG krova outsider | chmod o-w $DIR => 0 unknown:daemon\n"
    "root:outsider         | 1 fault:connection fault:directory mode "
    "| usermod -aG krova outsider | chmod o-w $DIR => 0\n";

// The same daemon in order, with a file of a tap.
constexpr char kOnlyATapIsNoted[] =
    "root krova            | 0 note:tap\n"
    "root:krova root:member| 0 note:tap\n"
    "member                | 0 note:tap unknown:daemon\n"
    "outsider              | 1 fault:connection\n"
    "root:outsider         | 1 fault:connection note:tap | usermod -aG krova outsider => 0 note:tap\n";

// The same daemon in order, but for what it has loaded.
constexpr char kOnlyTheLibraryIsNoted[] =
    "root krova            | 0 note:library\n"
    "root:krova root:member| 0 note:library\n"
    "member                | 0 unknown:daemon\n"
    "outsider              | 1 fault:connection\n"
    "root:outsider         | 1 fault:connection note:library | usermod -aG krova outsider => 0 note:library\n";

// A daemon of krova with a socket of the group staff, in a directory of the group krova.
constexpr char kDirectoryAndSocketOfDifferentGroups[] =
    "root root:krova       | 0\n"
    "krova                 | 0 unknown:daemon\n"
    "member                | 1 fault:connection unknown:daemon | usermod -aG staff member => 0 unknown:daemon\n"
    "root:member           | 1 fault:connection | usermod -aG staff member => 0\n"
    "outsider              | 1 fault:connection\n"
    "root:outsider         | 1 fault:connection | usermod -aG krova,staff outsider => 0\n";

// No directory below a parent of a user whose name stands in no command.
constexpr char kDirectoryIsMadeForANamelessUser[] =
    "root                  | 3 note:connection note:directory\n"
    "krova member outsider | 1 note:connection fault:directory | install -d -m 0350 -o 3005 -g 4005 $DIR "
    "=> 1 fault:connection\n"
    "root:krova root:member root:outsider | 1 note:connection fault:directory "
    "| install -d -m 0350 -o 3005 -g 4005 $DIR => 1 fault:connection\n";

// A daemon at the saved path, and nobody in its place.
constexpr char kDaemonIsBehindAKilledTap[] =
    "root krova            | 1 note:connection fault:tap | mv -fT $SAVED $SOCK => 0\n"
    "root:krova root:member| 1 note:connection fault:tap | mv -fT $SAVED $SOCK => 0\n"
    "member                | 1 note:connection fault:tap | mv -fT $SAVED $SOCK => 0 unknown:daemon\n"
    "outsider              | 1 fault:connection\n"
    "root:outsider         | 1 fault:connection fault:tap | mv -fT $SAVED $SOCK => 1 fault:connection\n";

// A daemon whose socket nobody finds at its path.
constexpr char kDaemonIsOutOfReach[] =
    "root krova            | 1 note:connection fault:other daemon\n"
    "root:krova root:member| 1 note:connection fault:other daemon\n"
    "member                | 3 note:connection unknown:other daemon\n"
    "outsider              | 1 fault:connection\n"
    "root:outsider         | 1 fault:connection fault:other daemon\n";

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
     "member                | 0 unknown:daemon\n" OUTSIDER_STAYS_OUT,
     "member | unknown of the daemon: its descriptors, its library\n"
     "outsider | $SOCK (mode unknown)\n"
     "outsider | the mode of $SOCK is unknown; root is told more: gakppctl doctor --user outsider\n"
     "root:outsider | the group counts for processes that the user starts after logging in anew\n"},

    {"GroupOfAnOtherwiseForeignDirectory",
     [](Machine& m) {
         Machine::Chown(kHome, kRoot, kRoot);
         Machine::Make(kDir, 0770, kRoot, kKrova);
         StartKrovasDaemon(m);
     },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 0 unknown:daemon\n" OUTSIDER_STAYS_OUT},

    {"DirectoryOfTheGroupThatTheDaemonRunsIn",
     [](Machine& m) {
         Machine::Make(kDir, 0770, kRoot, kStaff);
         m.StartDaemon(kKrova, kStaff, "0007");
     },
     "root                  | 0\n"
     "krova member outsider | 1 fault:connection\n"
     "root:krova            | 1 fault:connection | usermod -aG staff krova => 0\n"
     "root:member           | 1 fault:connection | usermod -aG staff member => 0\n"
     "root:outsider         | 1 fault:connection | usermod -aG staff outsider => 0\n"},

    {"DirectoryOfASupplementaryGroupOfTheDaemon",
     [](Machine& m) {
         Machine::Make(kDir, 0770, kRoot, kKrova);
         m.StartDaemon(kKrova, kStaff, "0007");
     },
     kDirectoryAndSocketOfDifferentGroups},

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
     "root:krova root:member root:outsider | 1 fault:connection\n",
     "root:krova | these files belong to the group root, which nobody should join\n"},

    {"Everybody",
     [](Machine& m) {
         Machine::Make(kDir, 0755, kKrova, kKrova);
         StartKrovasDaemon(m, "0000");
     },
     "root krova            | 0 note:access\n"
     "root:krova root:member root:outsider | 0 note:access\n"
     "member outsider       | 0 note:access unknown:daemon\n"},

    {"SocketGivenToAnotherUser",
     [](Machine& m) {
         Machine::Chown(kHome, kRoot, kRoot);
         Machine::Make(kDir, 0755, kRoot, kRoot);
         m.StartDaemon(kRoot, kRoot, "0000");
         Machine::Chown(kSock, kKrova, kKrova);
     },
     "root                  | 0 note:access\n"
     "root:krova root:member root:outsider | 0 note:access\n"
     "krova member outsider | 0 note:access unknown:daemon\n"},

    {"AccessControlListAdmitsTheOutsider",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::AddAcl(kDir, kOutsider, 1);
         Machine::AddAcl(kSock, kOutsider, 2);
     },
     "root krova            | 0\n"
     "root:krova root:member root:outsider | 0\n"
     "member outsider       | 0 unknown:daemon\n"},

    {"AccessControlListThatLetsTheDaemonListen",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kRoot, kRoot);
         Machine::AddAcl(kDir, kKrova, 3);
         StartKrovasDaemon(m);
     },
     "root krova root:krova | 0\n"
     "member outsider       | 1 fault:connection\n"
     "root:member root:outsider | 1 fault:connection\n"},

    {"AccessControlListOfTheDirectory",
     [](Machine& m) {
         StartKrovasDaemon(m, "0022");
         Machine::AddAcl(kDir, kOutsider, 1);
     },
     "root krova root:krova | 0\n"
     "member                | 1 fault:connection unknown:daemon\n"
     "outsider              | 1 fault:connection unknown:daemon\n"
     "root:member root:outsider | 1 fault:connection\n"},

    {"EverybodyButTheMember",
     [](Machine& m) {
         Machine::Make(kDir, 0755, kKrova, kKrova);
         StartKrovasDaemon(m, "0000");
         Machine::AddAcl(kSock, kMember, 0);
     },
     "root krova            | 0\n"
     "root:krova root:outsider | 0\n"
     "member                | 1 fault:connection unknown:daemon\n"
     "root:member           | 1 fault:connection\n"
     "outsider              | 0 unknown:daemon\n"},

    {"BeforeTheFirstStart", [](Machine&) {},
     "root krova root:krova | 3 note:connection note:directory\n"
     "member root:member    | 1 note:connection fault:directory | install -d -m 0350 -o krova -g krova $DIR "
     "=> 3 note:connection\n"
     "outsider root:outsider| 1 note:connection fault:directory | install -d -m 0350 -o krova -g krova $DIR "
     "=> 1 fault:connection\n",
     "root | $DIR (not there), $SOCK (not there)\n"},

    {"DirectoryMadeByTheInstallation", [](Machine&) { Machine::Make(kDir, 0350, kKrova, kKrova); },
     "root krova member     | 3 note:connection\n"
     "root:krova root:member| 3 note:connection\n"
     "outsider root:outsider| 1 fault:connection\n"},

    {"SocketThatDoesNotListenYet",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartBound(kKrova, kSock, 0007);
     },
     "root krova member     | 3 note:connection\n"
     "root:krova root:member| 3 note:connection\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection unknown:daemon | usermod -aG krova outsider => 3 note:connection\n"},

    {"FileSystemWithoutLimits", [](Machine&) { MountDirectory(",nr_inodes=0,size=0"); },
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
     "outsider root:outsider| 1 fault:connection\n",
     "root:outsider | no daemon listens; the directory has to belong to the daemon's user\n"},

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
     kOnlyATapIsNoted, "root | a tap passes everything on\n"},

    {"TapInPlaceSeenFromAContainer",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         m.SetWrapper({"unshare", "--pid", "--net", "--fork", "--kill-child", "--mount-proc"});
     },
     "root krova member     | 0 note:tap unknown:daemon\n"
     "root:krova root:member| 0 note:tap unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:tap unknown:daemon | usermod -aG krova outsider "
     "=> 0 note:tap unknown:daemon\n",
     "root | a tap passes everything on\n"},

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
     "root:outsider         | 1 fault:connection unknown:daemon | usermod -aG krova outsider => 0 unknown:daemon\n",
     "root | unknown of the daemon: its process, its umask, its descriptors, its library\n"},

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
         if (kUnderSanitizer) {
             throw NotPossible("a sanitizer needs /proc, also to read its options");
         }
         StartKrovasDaemon(m);
         m.SetWrapper({"unshare", "--mount", "sh", "-c", "mount -t tmpfs none /proc && exec \"$@\"", "sh"});
     },
     "root krova member     | 0 unknown:daemon\n"
     "root:krova root:member| 0 unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection unknown:daemon | usermod -aG krova outsider => 0 unknown:daemon\n",
     "root | unknown of the daemon: its umask, its descriptors, its library\n"},

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

    {"ListenerBelowAnotherRoot",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         fs::create_directories("/home/elsewhere/home/KrovaUser");
         Machine::Make("/home/elsewhere" + kDir, 0350, kKrova, kKrova);
         m.StartListener(kKrova, kSock, SOCK_STREAM, 0007, "/home/elsewhere");
     },
     "root krova            | 3 note:connection\n"
     "root:krova root:member| 3 note:connection\n"
     "member                | 3 note:connection unknown:other daemon\n"
     "outsider root:outsider| 1 fault:connection\n"},

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
     "outsider root:outsider| 1 fault:connection\n",
     "root:outsider | $DIR is a symbolic link: look at what it leads to\n"},

    {"LeftoverOfAnOldTap",
     [](Machine& m) {
         StartKrovasDaemon(m);
         LeaveSocket(m, kSavedSock);
     },
     kOnlyATapIsNoted},

    {"ReplacedLibrary",
     [](Machine& m) {
         Machine::InstallElsewhere();
         StartKrovasDaemon(m);
         const std::string library = kOtherPrefix + "/lib/libgakppc.so.1";
         fs::copy(library, library + ".new");
         fs::rename(library + ".new", library);
     },
     kOnlyTheLibraryIsNoted,
     "root | still runs a library that has been replaced: /home/elsewhere/prefix/lib/libgakppc.so.1 (deleted)\n"},

    {"OtherProgramOfTheDaemonsUser",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartListener(kKrova, kSock, SOCK_STREAM, 0007);
     },
     kOnlyTheLibraryIsNoted},

    {"FileSystemWithoutASpareBlock",
     [](Machine& m) {
         MountDirectory(",size=64k");
         StartKrovasDaemon(m);
         FillWithBytes(kDir + "/file");
     },
     "root krova            | 0 note:file system\n"
     "root:krova root:member| 0 note:file system\n"
     "member                | 0 note:file system unknown:daemon\n"
     "outsider              | 1 fault:connection note:file system\n"
     "root:outsider         | 1 fault:connection note:file system | usermod -aG krova outsider "
     "=> 0 note:file system\n"},

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

const std::vector<Scenario> kFaultyScenarios{
    {"Umask0022", [](Machine& m) { StartKrovasDaemon(m, "0022"); },
     "root krova root:krova | 0 note:access\n"
     "member                | 1 fault:connection note:access unknown:daemon | chmod g+w $SOCK "
     "=> 0 note:umask unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:member           | 1 fault:connection note:access | chmod g+w $SOCK => 0 note:umask\n"
     "root:outsider         | 1 fault:connection note:access | usermod -aG krova outsider && chmod g+w $SOCK "
     "=> 0 note:umask\n",
     "root:member | the daemon makes the socket anew at each start\n"
     "root | umask of the daemon 0022\n"},

    {"TapInFrontOfADaemonWithUmask0022",
     [](Machine& m) {
         StartKrovasDaemon(m, "0022");
         m.StartTap(kRoot);
     },
     "root krova root:krova | 0 note:tap note:access\n"
     "member                | 1 fault:connection note:tap note:access unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:member           | 1 fault:connection note:tap note:access\n"
     "root:outsider         | 1 fault:connection note:tap note:access\n",
     "root:member | a tap is in place: ask again when it has ended\n"},

    {"StoppedDaemonWithUmask0022",
     [](Machine& m) {
         StartKrovasDaemon(m, "0022");
         m.StopDaemon(SIGTERM);
     },
     "root krova root:krova | 3 note:connection\n"
     "member outsider       | 1 fault:connection\n"
     "root:member           | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection\n",
     "root:member | the daemon makes the socket anew at each start\n"},

    {"SessionOlderThanTheMembership",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.SetGroups(kMember, "--clear-groups");
     },
     "root krova            | 0\n"
     "root:krova root:member| 0\n"
     "member                | 1 fault:connection\n" OUTSIDER_STAYS_OUT,
     "member | the user has joined the group after this session began: log in anew\n"},

    {"EverybodyButTheGroup",
     [](Machine& m) {
         Machine::Make(kDir, 0755, kKrova, kKrova);
         StartKrovasDaemon(m, "0070");
     },
     "root krova            | 0 note:access\n"
     "root:krova root:outsider | 0 note:access\n"
     "member                | 1 fault:connection note:access unknown:daemon | chmod g+w $SOCK "
     "=> 0 note:access note:umask unknown:daemon\n"
     "root:member           | 1 fault:connection note:access | chmod g+w $SOCK => 0 note:access note:umask\n"
     "outsider              | 0 note:access unknown:daemon\n"},

    {"SessionInNoOtherThanItsOwnGroup",
     [](Machine& m) {
         m.StartDaemon(kKrova, kMember, "0022");
         m.SetGroups(kMember, "--clear-groups");
     },
     "root root:krova       | 0 note:access\n"
     "krova                 | 0 note:access unknown:daemon\n"
     "member                | 1 fault:connection note:access unknown:daemon | chmod g+w $SOCK "
     "=> 0 note:umask unknown:daemon\n"
     "root:member           | 1 fault:connection note:access | chmod g+w $SOCK => 0 note:umask\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:access | usermod -aG member outsider && chmod g+w $SOCK "
     "=> 0 note:umask\n"},

    {"SocketOfAnotherGroup", [](Machine& m) { m.StartDaemon(kKrova, kOutsider, "0007"); },
     "root root:krova       | 0\n"
     "krova                 | 0 unknown:daemon\n"
     "member                | 1 fault:connection\n"
     "root:member           | 1 fault:connection | usermod -aG outsider member => 0\n"
     "outsider              | 0 unknown:daemon\n"
     "root:outsider         | 0\n"},

    {"DirectoryAndSocketOfDifferentGroups",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartDaemon(kKrova, kStaff, "0007");
     },
     kDirectoryAndSocketOfDifferentGroups},

    {"DaemonOfNogroup", [](Machine& m) { m.StartDaemon(kKrova, kNogroup, "0022"); },
     "root root:krova       | 0\n"
     "krova                 | 0 unknown:daemon\n"
     "member outsider       | 1 fault:connection\n"
     "root:member root:outsider | 1 fault:connection\n",
     "root:member | these files belong to the group nogroup, which nobody should join\n"},

    {"DaemonOfNogroupInADirectoryOfAnotherGroup",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartDaemon(kKrova, kNogroup, "0007");
     },
     "root root:krova       | 0\n"
     "krova                 | 0 unknown:daemon\n"
     "member                | 1 fault:connection unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:member root:outsider | 1 fault:connection\n",
     "root:outsider | these files belong to the group nogroup, which nobody should join\n"},

    {"DirectoryOfNogroup",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kNogroup);
         StartKrovasDaemon(m);
     },
     "root krova root:krova | 0\n"
     "member outsider       | 1 fault:connection\n"
     "root:member root:outsider | 1 fault:connection\n",
     "root:outsider | these files belong to the group nogroup, which nobody should join\n"},

    {"GroupWhoseNameNeedsQuotes",
     [](Machine& m) {
         std::ofstream("/etc/group", std::ios::app) << "qel workers:x:4005:\n";
         Machine::Make(kDir, 0350, kKrova, kNameless);
         m.StartDaemon(kKrova, kNameless, "0007");
     },
     "root root:krova       | 0\n"
     "krova                 | 0 unknown:daemon\n"
     "member outsider       | 1 fault:connection\n"
     "root:member root:outsider | 1 fault:connection\n",
     "root:outsider | outsider has to join the group qel workers\n"},

    {"GroupThatHasNoName",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kNameless);
         m.StartDaemon(kKrova, kNameless, "0007");
     },
     "root root:krova       | 0\n"
     "krova                 | 0 unknown:daemon\n"
     "member outsider       | 1 fault:connection\n"
     "root:member root:outsider | 1 fault:connection\n",
     "root:outsider | outsider has to join the group 4005\n"},

    {"SecondGroupThatHasNoName",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartDaemon(kKrova, kNameless, "0007");
     },
     "root root:krova       | 0\n"
     "krova                 | 0 unknown:daemon\n"
     "member                | 1 fault:connection unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:member root:outsider | 1 fault:connection\n",
     "root:member | member has to join the group 4005\n"
     "root:outsider | outsider has to join the groups krova, 4005\n"},

    {"CallerThatHasNoName",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartDaemon(kKrova, kStaff, "0007");
         m.SetGroups(kMember, "--groups=4001");
         const std::string hideMember =
             "grep -v ^member: /etc/passwd > /etc/others && mount --bind /etc/others /etc/passwd && ";
         m.SetWrapper({"unshare", "--mount", "sh", "-c", hideMember + "exec \"$@\"", "sh"});
     },
     "root root:krova       | 0\n"
     "krova                 | 0 unknown:daemon\n"
     "member                | 1 fault:connection unknown:daemon\n"
     "root:member           | 2\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection unknown:daemon | usermod -aG krova,staff outsider => 0\n",
     "member | 3002 has to join the group staff\n"},

    {"RootsDaemonInTheUsersDirectory",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartDaemon(kRoot, kRoot, "0022");
     },
     "root                  | 0 note:access\n"
     "krova member          | 1 fault:connection note:access unknown:daemon\n"
     "root:krova root:member root:outsider | 1 fault:connection note:access\n"
     "outsider              | 1 fault:connection\n"},

    {"NoParent", [](Machine&) { fs::remove(kHome); },
     "root                  | 1 note:connection fault:parent | install -d -m 0755 $HOME "
     "=> 3 note:connection note:directory\n"
     "krova member outsider | 1 note:connection fault:parent\n"
     "root:krova root:member root:outsider | 1 note:connection fault:parent\n"},

    {"FileInTheParentsPlace",
     [](Machine&) {
         fs::remove(kHome);
         MakeEmptyFile(kHome, 0644);
     },
     "root                  | 1 note:connection fault:parent "
     "| mv -T $HOME $HOME.moved1 && install -d -m 0755 $HOME => 3 note:connection note:directory\n"
     "krova member outsider | 1 note:connection fault:parent\n"
     "root:krova root:member root:outsider | 1 note:connection fault:parent\n"},

    {"FileInTheParentsPlaceAndNoNameFree",
     [](Machine&) {
         fs::remove(kHome);
         MakeEmptyFile(kHome, 0644);
         for (int i = 1; i < 10; ++i) {
             MakeEmptyFile(kHome + ".moved" + std::to_string(i), 0644);
         }
     },
     "root krova member outsider           | 1 note:connection fault:parent\n"
     "root:krova root:member root:outsider | 1 note:connection fault:parent\n"},

    {"LinkToAFileInTheParentsPlace",
     [](Machine&) {
         fs::remove(kHome);
         MakeEmptyFile("/home/elsewhere", 0644);
         fs::create_symlink("/home/elsewhere", kHome);
     },
     "root krova member outsider           | 1 note:connection fault:parent\n"
     "root:krova root:member root:outsider | 1 note:connection fault:parent\n"},

    {"DanglingLinkInTheParentsPlace",
     [](Machine&) {
         fs::remove(kHome);
         fs::create_symlink("/home/elsewhere", kHome);
     },
     "root krova member outsider           | 1 note:connection fault:parent\n"
     "root:krova root:member root:outsider | 1 note:connection fault:parent\n"},

    {"NoDirectoryAndRootsParent", [](Machine&) { Machine::Chown(kHome, kRoot, kRoot); },
     "root                  | 3 note:connection note:directory\n"
     "krova member outsider | 1 note:connection fault:directory\n"
     "root:krova root:member root:outsider | 1 note:connection fault:directory\n"},

    {"FileInTheDirectorysPlace", [](Machine&) { MakeEmptyFile(kDir, 0644); },
     "root krova member     | 1 note:connection fault:directory "
     "| mv -T $DIR $DIR.moved1 && install -d -m 0350 -o krova -g krova $DIR => 3 note:connection\n"
     "root:krova root:member| 1 note:connection fault:directory "
     "| mv -T $DIR $DIR.moved1 && install -d -m 0350 -o krova -g krova $DIR => 3 note:connection\n"
     "outsider root:outsider| 1 note:connection fault:directory "
     "| mv -T $DIR $DIR.moved1 && install -d -m 0350 -o krova -g krova $DIR => 1 fault:connection\n",
     "root | $SOCK (not there)\n"},

    {"NoDirectoryBelowAParentThatPassesItsGroupOn",
     [](Machine&) {
         Machine::Chown(kHome, kKrova, kStaff);
         Machine::Chmod(kHome, 02755);
     },
     "root krova root:krova | 3 note:connection note:directory\n"
     "member root:member    | 1 note:connection fault:directory | install -d -m 0350 -o krova -g staff $DIR "
     "=> 1 fault:connection\n"
     "outsider root:outsider| 1 note:connection fault:directory | install -d -m 0350 -o krova -g staff $DIR "
     "=> 1 fault:connection\n"},

    {"NoDirectoryBelowAParentOfAUserThatHasNoName", [](Machine&) { Machine::Chown(kHome, kNameless, kNameless); },
     kDirectoryIsMadeForANamelessUser},

    {"NoDirectoryAndNamesThatNeedQuotes",
     [](Machine&) {
         std::ofstream("/etc/passwd", std::ios::app) << "qel daemon:x:3005:4005::/:/bin/sh\n";
         std::ofstream("/etc/group", std::ios::app) << "qel workers:x:4005:\n";
         Machine::Chown(kHome, kNameless, kNameless);
     },
     kDirectoryIsMadeForANamelessUser},

    {"NoDirectoryBelowAParentThatOthersMayNotEnter", [](Machine&) { Machine::Chmod(kHome, 01752); },
     "root krova root:krova | 3 note:connection note:directory\n"
     "member root:member    | 1 note:connection fault:directory | install -d -m 0350 -o krova -g krova $DIR "
     "=> 3 note:connection\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:directory | install -d -m 0350 -o krova -g krova $DIR "
     "=> 1 fault:connection\n"},

    {"NoDirectoryInAFullFileSystem",
     [](Machine&) {
         Machine::MountTmpfs(kHome, "mode=0755,uid=3001,gid=4001,nr_inodes=4");
         FillWithFiles(kHome);
     },
     "root krova root:krova | 1 note:connection note:directory fault:file system\n"
     "member outsider       | 1 note:connection fault:directory fault:file system\n"
     "root:member root:outsider | 1 note:connection fault:directory fault:file system\n"},

    {"FileInTheDirectorysPlaceAndRootsParent",
     [](Machine&) {
         Machine::Chown(kHome, kRoot, kRoot);
         MakeEmptyFile(kDir, 0644);
     },
     "root                  | 1 note:connection fault:directory "
     "| mv -T $DIR $DIR.moved1 && install -d -m 0350 -o root -g root $DIR => 3 note:connection\n"
     "krova member outsider | 1 note:connection fault:directory\n"
     "root:krova root:member root:outsider | 1 note:connection fault:directory\n"},

    {"SecondFileInTheDirectorysPlace",
     [](Machine&) {
         MakeEmptyFile(kDir, 0644);
         MakeEmptyFile(kDir + ".moved1", 0644);
     },
     "root krova member     | 1 note:connection fault:directory "
     "| mv -T $DIR $DIR.moved2 && install -d -m 0350 -o krova -g krova $DIR => 3 note:connection\n"
     "root:krova root:member| 1 note:connection fault:directory "
     "| mv -T $DIR $DIR.moved2 && install -d -m 0350 -o krova -g krova $DIR => 3 note:connection\n"
     "outsider root:outsider| 1 note:connection fault:directory "
     "| mv -T $DIR $DIR.moved2 && install -d -m 0350 -o krova -g krova $DIR => 1 fault:connection\n"},

    {"FileInTheDirectorysPlaceAndNoNameFree",
     [](Machine&) {
         MakeEmptyFile(kDir, 0644);
         for (int i = 1; i < 10; ++i) {
             MakeEmptyFile(kDir + ".moved" + std::to_string(i), 0644);
         }
     },
     "root krova member outsider           | 1 note:connection fault:directory\n"
     "root:krova root:member root:outsider | 1 note:connection fault:directory\n"},

    {"LinkToAFileInTheDirectorysPlace",
     [](Machine&) {
         MakeEmptyFile("/home/elsewhere", 0644);
         fs::create_symlink("/home/elsewhere", kDir);
     },
     "root krova member outsider           | 1 note:connection fault:directory\n"
     "root:krova root:member root:outsider | 1 note:connection fault:directory\n"},

    {"DanglingLink", [](Machine&) { fs::create_symlink("/home/elsewhere", kDir); },
     "root krova member outsider            | 1 note:connection fault:directory\n"
     "root:krova root:member root:outsider  | 1 note:connection fault:directory\n",
     "root | is a symbolic link that leads to nothing\n"},

    {"LinkToItself", [](Machine&) { fs::create_symlink(kDir, kDir); },
     "root krova member outsider            | 1 fault:connection\n"
     "root:krova root:member root:outsider  | 1 fault:connection\n"},

    {"DirectoryGivenToRoot",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::Chown(kDir, kRoot, kRoot);
     },
     "root                  | 1 fault:directory | chown krova $DIR => 0\n"
     "krova member outsider | 1 fault:connection\n"
     "root:krova            | 1 fault:connection fault:directory | chown krova $DIR => 0\n"
     "root:member           | 1 fault:connection fault:directory | chown krova $DIR => 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:directory | chown krova $DIR => 1 fault:connection\n"},

    {"DirectoryGivenToRootAfterTheDaemonHasEnded",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StopDaemon(SIGTERM);
         Machine::Chown(kDir, kRoot, kRoot);
     },
     "root                  | 3 note:connection note:directory\n"
     "krova member outsider | 1 fault:connection\n"
     "root:krova root:member root:outsider | 1 fault:connection note:directory\n"},

    {"DirectoryGivenToTheMember",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::Chown(kDir, kMember, kMember);
     },
     "root root:member      | 1 fault:directory\n"
     "member                | 1 fault:directory unknown:daemon\n"
     "krova outsider        | 1 fault:connection\n"
     "root:krova            | 1 fault:connection fault:directory | usermod -aG member krova => 1 fault:directory\n"
     "root:outsider         | 1 fault:connection fault:directory | usermod -aG member,krova outsider "
     "=> 1 fault:directory\n"},

    {"DirectoryGivenToRootWhoseOwnBitsAreMissing",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::Chown(kDir, kRoot, kKrova);
         Machine::Chmod(kDir, 0050);
     },
     "root krova            | 1 fault:directory\n"
     "root:krova root:member| 1 fault:directory\n"
     "member                | 1 fault:directory unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:directory | usermod -aG krova outsider "
     "=> 1 fault:directory\n"},

    {"DirectoryMadeByAWorker",
     [](Machine&) {
         Machine::Chmod(kHome, 01777);
         Machine::Make(kDir, 0350, kMember, kMember);
     },
     "root member           | 3 note:connection\n"
     "root:member           | 3 note:connection\n"
     "krova outsider        | 1 fault:connection\n"
     "root:krova root:outsider | 1 fault:connection\n"},

    {"DirectoryThatAnybodyMayWriteTo",
     [](Machine& m) {
         Machine::Make(kDir, 0777, kKrova, kKrova);
         StartKrovasDaemon(m);
     },
     kOnlyTheDirectoryIsOpen},

    {"OwnDirectoryOfAnotherGroupThatAnybodyMayWriteTo",
     [](Machine& m) {
         Machine::Make(kDir, 0777, kKrova, kStaff);
         StartKrovasDaemon(m);
     },
     kOnlyTheDirectoryIsOpen},

    {"DirectoryOfTheDaemonsGroupThatAnybodyMayWriteTo",
     [](Machine& m) {
         Machine::Make(kDir, 0777, kRoot, kKrova);
         StartKrovasDaemon(m);
     },
     kOnlyTheDirectoryIsOpen},

    {"RootsDaemonInADirectoryThatAnybodyMayWriteTo",
     [](Machine& m) {
         Machine::Make(kDir, 0777, kKrova, kKrova);
         m.StartDaemon(kRoot, kKrova, "0007");
     },
     "root                  | 1 fault:directory mode | chmod o-w $DIR => 0\n"
     "root:krova root:member| 1 fault:directory mode | chmod o-w $DIR => 0\n"
     "krova member          | 1 fault:directory mode unknown:daemon | chmod o-w $DIR => 0 unknown:daemon\n"
     "outsider              | 1 fault:connection fault:directory mode unknown:daemon "
     "| usermod -aG krova outsider | chmod o-w $DIR => 0 unknown:daemon\n"
     "root:outsider         | 1 fault:connection fault:directory mode "
     "| usermod -aG krova outsider | chmod o-w $DIR => 0\n"},

    {"DirectoryWithAnAccessControlListThatAnybodyMayWriteTo",
     [](Machine& m) {
         Machine::Make(kDir, 0777, kKrova, kKrova);
         StartKrovasDaemon(m);
         Machine::AddAcl(kDir, kOutsider, 1);
     },
     "root krova            | 1 fault:directory mode\n"
     "root:krova root:member| 1 fault:directory mode\n"
     "member                | 1 fault:directory mode unknown:daemon\n"
     "outsider              | 1 fault:connection fault:directory mode unknown:daemon\n"
     "root:outsider         | 1 fault:connection fault:directory mode\n"},

    {"DirectoryThatAnybodyMayWriteToAndNoDaemon", [](Machine&) { Machine::Make(kDir, 0777, kRoot, kRoot); },
     "root krova member outsider           | 1 note:connection fault:directory mode\n"
     "root:krova root:member root:outsider | 1 note:connection fault:directory mode\n"},

    {"ImpostorInADirectoryThatAnybodyMayWriteTo",
     [](Machine& m) {
         Machine::Make(kDir, 0777, kKrova, kKrova);
         m.StartListener(kOutsider, kSock, SOCK_STREAM, 0);
     },
     "root outsider         | 1 fault:directory mode note:access note:library\n"
     "root:krova root:member root:outsider | 1 fault:directory mode note:access note:library\n"
     "krova member          | 1 fault:directory mode note:access unknown:daemon\n"},

    {"ImpostorInADirectoryThatWasOpenOnce",
     [](Machine& m) {
         Machine::Make(kDir, 0777, kRoot, kKrova);
         m.StartListener(kOutsider, kSock, SOCK_STREAM, 0);
         Machine::Chmod(kDir, 0350);
     },
     "root                  | 1 fault:directory note:library\n"
     "root:krova root:member| 1 fault:directory note:library\n"
     "krova member          | 1 fault:directory unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:directory note:library | usermod -aG krova outsider "
     "=> 1 fault:directory note:library\n"},

    {"SharedStickyDirectoryWithASocketOfSomebodyElse",
     [](Machine& m) {
         Machine::Make(kDir, 01777, kRoot, kRoot);
         m.StartListener(kOutsider, kSock, SOCK_STREAM, 0);
         m.StopListeners();
     },
     "root krova member outsider           | 1 note:connection fault:directory mode\n"
     "root:krova root:member root:outsider | 1 note:connection fault:directory mode\n"},

    {"DirectoryClosedToItsOwner",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::Chmod(kDir, 0050);
     },
     "root root:member      | 1 fault:directory | chmod u+wx $DIR => 0\n"
     "krova outsider        | 1 fault:connection\n"
     "root:krova            | 1 fault:connection fault:directory | chmod u+x $DIR | chmod u+wx $DIR => 0\n"
     "member                | 1 fault:directory unknown:daemon | chmod u+wx $DIR => 0 unknown:daemon\n"
     "root:outsider         | 1 fault:connection fault:directory "
     "| usermod -aG krova outsider | chmod u+wx $DIR => 0\n"},

    {"DirectoryClosedToItsOwnerWhoIsNotInItsGroup",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kStaff);
         StartKrovasDaemon(m);
         Machine::Chmod(kDir, 0050);
     },
     "root                  | 1 fault:directory | chmod u+wx $DIR => 0\n"
     "krova member outsider | 1 fault:connection\n"
     "root:krova            | 1 fault:connection fault:directory | chmod u+x $DIR | chmod u+wx $DIR => 0\n"
     "root:member           | 1 fault:connection fault:directory "
     "| usermod -aG staff member | chmod u+wx $DIR => 0\n"
     "root:outsider         | 1 fault:connection fault:directory "
     "| usermod -aG staff,krova outsider | chmod u+wx $DIR => 0\n"},

    {"DirectoryThatItsOwnerMayNotWriteTo",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::Chmod(kDir, 0150);
     },
     "root krova            | 1 fault:directory | chmod u+wx $DIR => 0\n"
     "root:krova root:member| 1 fault:directory | chmod u+wx $DIR => 0\n"
     "member                | 1 fault:directory unknown:daemon | chmod u+wx $DIR => 0 unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:directory "
     "| usermod -aG krova outsider | chmod u+wx $DIR => 0\n"},

    {"TapInADirectoryThatItsOwnerMayNotWriteTo",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         Machine::Chmod(kDir, 0150);
     },
     "root krova            | 1 fault:directory note:tap | chmod u+wx $DIR => 0 note:tap\n"
     "root:krova root:member| 1 fault:directory note:tap | chmod u+wx $DIR => 0 note:tap\n"
     "member                | 1 fault:directory note:tap unknown:daemon | chmod u+wx $DIR => 0 note:tap "
     "unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:directory note:tap "
     "| usermod -aG krova outsider | chmod u+wx $DIR => 0 note:tap\n"},

    {"ParentThatMayNotBeEntered",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::Chmod(kHome, 0700);
     },
     "root krova root:krova | 0\n"
     "member outsider       | 1 fault:connection\n"
     "root:member           | 1 fault:connection | chmod g+x $HOME => 0\n"
     "root:outsider         | 1 fault:connection | usermod -aG krova outsider && chmod g+x $HOME => 0\n"},

    {"TapBelowAParentThatMayNotBeEntered",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         Machine::Chmod(kHome, 0700);
     },
     "root krova root:krova | 0 note:tap\n"
     "member outsider       | 1 fault:connection\n"
     "root:member           | 1 fault:connection note:tap | chmod g+x $HOME => 0 note:tap\n"
     "root:outsider         | 1 fault:connection note:tap | usermod -aG krova outsider && chmod g+x $HOME "
     "=> 0 note:tap\n"},

    {"HomeThatMayNotBeEntered",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::Chmod("/home", 0700);
     },
     "root                  | 0\n"
     "krova member outsider | 1 fault:connection\n"
     "root:krova root:member root:outsider | 1 fault:connection\n",
     "krova | it may not enter /home; whether a daemon listens is unknown\n"
     "root:krova | it is not the modes of these files that refuse: a folder above them\n"},

    {"ParentThatAnybodyMayWriteTo",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::Chmod(kHome, 0777);
     },
     "root krova            | 1 fault:parent | chmod +t $HOME => 0\n"
     "root:krova root:member| 1 fault:parent | chmod +t $HOME => 0\n"
     "member                | 1 fault:parent unknown:daemon | chmod +t $HOME => 0 unknown:daemon\n"
     "outsider              | 1 fault:connection fault:parent | chmod +t $HOME => 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:parent "
     "| usermod -aG krova outsider | chmod +t $HOME => 0\n"},

    {"ParentThatAnybodyMayWriteToAndNoDirectory", [](Machine&) { Machine::Chmod(kHome, 0777); },
     "root krova member outsider           | 1 note:connection fault:parent note:directory\n"
     "root:krova root:member root:outsider | 1 note:connection fault:parent note:directory\n"},

    {"ParentWithAnAccessControlListThatAnybodyMayWriteTo",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::Chmod(kHome, 0777);
         Machine::AddAcl(kHome, kOutsider, 1);
     },
     "root krova            | 1 fault:parent\n"
     "root:krova root:member| 1 fault:parent\n"
     "member                | 1 fault:parent unknown:daemon\n"
     "outsider root:outsider| 1 fault:connection fault:parent\n"},

    {"ReadOnlyFileSystemUnderARunningDaemon",
     [](Machine& m) {
         MountDirectory("");
         StartKrovasDaemon(m);
         Machine::RemountReadOnly(kDir);
     },
     "root krova            | 1 fault:file system\n"
     "root:krova root:member| 1 fault:file system\n"
     "member                | 1 fault:file system unknown:daemon\n"
     "outsider              | 1 fault:connection fault:file system\n"
     "root:outsider         | 1 fault:connection fault:file system | usermod -aG krova outsider "
     "=> 1 fault:file system\n"},

    {"ReadOnlyFileSystem",
     [](Machine&) {
         MountDirectory("");
         Machine::RemountReadOnly(kDir);
     },
     "root krova member     | 1 note:connection fault:file system\n"
     "root:krova root:member| 1 note:connection fault:file system\n"
     "outsider root:outsider| 1 fault:connection fault:file system\n"},

    {"FileInTheDirectorysPlaceOfAReadOnlyFileSystem",
     [](Machine&) {
         Machine::MountTmpfs(kHome, "mode=0755,uid=3001,gid=4001");
         MakeEmptyFile(kDir, 0644);
         Machine::RemountReadOnly(kHome);
     },
     "root krova member outsider           | 1 note:connection fault:directory fault:file system\n"
     "root:krova root:member root:outsider | 1 note:connection fault:directory fault:file system\n"},

    {"ReadOnlyParent",
     [](Machine&) {
         Machine::MountTmpfs(kHome, "mode=0755,uid=3001,gid=4001");
         Machine::RemountReadOnly(kHome);
     },
     "root krova member outsider           | 1 note:connection fault:directory fault:file system\n"
     "root:krova root:member root:outsider | 1 note:connection fault:directory fault:file system\n"},

    {"FullFileSystem",
     [](Machine&) {
         MountDirectory(",nr_inodes=4");
         FillWithFiles(kDir);
     },
     "root krova member     | 1 note:connection fault:file system\n"
     "root:krova root:member| 1 note:connection fault:file system\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:file system\n"},

    {"AccessControlListKeepsAMemberOut",
     [](Machine& m) {
         StartKrovasDaemon(m);
         Machine::AddAcl(kSock, kMember, 0);
     },
     "root krova root:krova | 0\n"
     "member                | 1 fault:connection unknown:daemon\n"
     "root:member           | 1 fault:connection\n"
     "outsider root:outsider| 1 fault:connection\n",
     "root:member | $SOCK has an access control list: see getfacl\n"
     "member | $SOCK has an access control list: see getfacl\n"},

    {"StoppedProcess",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StopProcess();
     },
     "root krova            | 1 fault:daemon | kill -CONT $PID => 0\n"
     "root:krova root:member| 1 fault:daemon | kill -CONT $PID => 0\n"
     "member                | 1 fault:daemon unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:daemon | usermod -aG krova outsider | kill -CONT $PID => 0\n",
     "root | is stopped: it answers nobody\n"},

    {"ProcessInADebugger",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.TraceProcess();
     },
     "root krova            | 1 fault:daemon\n"
     "root:krova root:member| 1 fault:daemon\n"
     "member                | 1 fault:daemon unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:daemon | usermod -aG krova outsider => 1 fault:daemon\n",
     "root | is stopped by a debugger\n"},

    {"StoppedProcessWithAFullQueue",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StopProcess();
         m.FillQueue();
     },
     "root krova            | 1 fault:connection fault:daemon | kill -CONT $PID => 0\n"
     "root:krova root:member| 1 fault:connection fault:daemon | kill -CONT $PID => 0\n"
     "member                | 1 fault:connection unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:daemon | usermod -aG krova outsider | kill -CONT $PID => 0\n",
     "root | accepts no connections: 11 connections wait in the queue\n"
     "outsider | whether a daemon listens is unknown\n"},

    {"DaemonWithoutDescriptors",
     [](Machine& m) {
         m.StartDaemon(kKrova, kKrova, "0007", "prlimit --nofile=16");
         m.FillQueue();
     },
     "root krova            | 1 fault:connection fault:limits\n"
     "root:krova root:member| 1 fault:connection fault:limits\n"
     "member                | 1 fault:connection unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:limits "
     "| usermod -aG krova outsider => 1 fault:connection fault:limits\n"},

    {"KilledTap",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         m.StopTap(SIGKILL);
     },
     kDaemonIsBehindAKilledTap, "root | of at most\n"},

    {"KilledTapWhoseSocketHasBeenRemoved",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         m.StopTap(SIGKILL);
         fs::remove(kSock);
     },
     kDaemonIsBehindAKilledTap},

    {"KilledTapAndADirectoryInTheSocketsPlace",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         m.StopTap(SIGKILL);
         fs::remove(kSock);
         Machine::Make(kSock, 0777, kKrova, kKrova);
     },
     "root krova member     | 1 note:connection fault:socket fault:tap | mv -T $SOCK $SOCK.moved1 "
     "=> 1 note:connection fault:tap\n"
     "root:krova root:member| 1 note:connection fault:socket fault:tap | mv -T $SOCK $SOCK.moved1 "
     "=> 1 note:connection fault:tap\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:socket fault:tap | mv -T $SOCK $SOCK.moved1 "
     "=> 1 fault:connection fault:tap\n"},

    {"KilledTapOfADaemonInAnotherNetwork",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.ForgetDaemon();
         m.StartDaemon(kKrova, kKrova, "0007", "unshare --net");
         m.StartTap(kRoot);
         m.StopTap(SIGKILL);
     },
     "root krova            | 1 note:connection fault:tap | mv -fT $SAVED $SOCK => 0\n"
     "root:krova root:member| 1 note:connection fault:tap | mv -fT $SAVED $SOCK => 0\n"
     "member                | 1 note:connection fault:tap | mv -fT $SAVED $SOCK => 0 unknown:daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:tap | mv -fT $SAVED $SOCK "
     "=> 1 fault:connection unknown:daemon\n"},

    {"TapWithoutItsDaemon",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         m.StopDaemon(SIGTERM);
         m.WaitForTap("the daemon has ended");
     },
     "root krova member     | 3 note:connection note:tap\n"
     "root:krova root:member| 3 note:connection note:tap\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:tap | usermod -aG krova outsider => 3 note:connection "
     "note:tap\n",
     "root | a tap stands in the place of a daemon that has ended\n"},

    {"TapWithoutItsDaemonAndAnUnreachableOne",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.ForgetDaemon();
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         m.StopDaemon(SIGTERM);
         m.WaitForTap("the daemon has ended");
     },
     "root krova            | 1 note:connection note:tap fault:other daemon\n"
     "root:krova root:member| 1 note:connection note:tap fault:other daemon\n"
     "member                | 3 note:connection note:tap unknown:other daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:tap | usermod -aG krova outsider "
     "=> 1 note:connection note:tap fault:other daemon\n"},

    {"StoppedTapWithoutItsDaemon",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.StartTap(kRoot);
         m.StopTapProcess();
         m.StopDaemon(SIGTERM);
     },
     "root krova member     | 3 note:tap\n"
     "root:krova root:member| 3 note:tap\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:tap | usermod -aG krova outsider => 3 note:tap\n"},

    {"SocketRemovedUnderARunningDaemon",
     [](Machine& m) {
         StartKrovasDaemon(m);
         fs::remove(kSock);
     },
     kDaemonIsOutOfReach,
     "root | process $PID (gakppcd) listens on a socket that no worker reaches any more\n"
     "root | workers reach it again after its next start\n"
     "member | a process that cannot be seen from here listens on another socket\n"},

    {"SocketReplacedByAFile",
     [](Machine& m) {
         StartKrovasDaemon(m);
         fs::remove(kSock);
         MakeEmptyFile(kSock, 0666);
     },
     "root krova            | 1 note:connection note:socket fault:other daemon\n"
     "root:krova root:member| 1 note:connection note:socket fault:other daemon\n"
     "member                | 3 note:connection note:socket unknown:other daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection note:socket fault:other daemon\n"},

    {"DirectoryReplacedUnderARunningDaemon",
     [](Machine& m) {
         StartKrovasDaemon(m);
         fs::rename(kDir, kDir + ".old");
         Machine::Make(kDir, 0350, kKrova, kKrova);
     },
     kDaemonIsOutOfReach},

    {"DirectoryRemovedUnderARunningDaemon",
     [](Machine& m) {
         StartKrovasDaemon(m);
         fs::rename(kDir, kDir + ".old");
     },
     "root krova root:krova | 1 note:connection note:directory fault:other daemon\n"
     "member                | 1 note:connection fault:directory unknown:other daemon "
     "| install -d -m 0350 -o krova -g krova $DIR => 3 note:connection unknown:other daemon\n"
     "root:member           | 1 note:connection fault:directory fault:other daemon "
     "| install -d -m 0350 -o krova -g krova $DIR => 1 note:connection fault:other daemon\n"
     "outsider              | 1 note:connection fault:directory unknown:other daemon "
     "| install -d -m 0350 -o krova -g krova $DIR => 1 fault:connection\n"
     "root:outsider         | 1 note:connection fault:directory fault:other daemon "
     "| install -d -m 0350 -o krova -g krova $DIR => 1 fault:connection fault:other daemon\n"},

    {"SecondDaemon",
     [](Machine& m) {
         StartKrovasDaemon(m);
         m.ForgetDaemon();
         StartKrovasDaemon(m);
     },
     "root krova            | 1 fault:other daemon\n"
     "root:krova root:member| 1 fault:other daemon\n"
     "member                | 0 unknown:daemon unknown:other daemon\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:other daemon | usermod -aG krova outsider "
     "=> 1 fault:other daemon\n",
     "root | see to it that there is one daemon\n"},

    {"DirectoryInTheSocketsPlace",
     [](Machine&) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         Machine::Make(kSock, 0777, kKrova, kKrova);
     },
     "root krova member     | 1 note:connection fault:socket | mv -T $SOCK $SOCK.moved1 => 3 note:connection\n"
     "root:krova root:member| 1 note:connection fault:socket | mv -T $SOCK $SOCK.moved1 => 3 note:connection\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:socket | mv -T $SOCK $SOCK.moved1 => 1 fault:connection\n"},

    {"LinkToADirectoryInTheSocketsPlace",
     [](Machine&) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         Machine::Make("/home/elsewhere", 0777, kKrova, kKrova);
         fs::create_symlink("/home/elsewhere", kSock);
     },
     "root krova member     | 1 note:connection fault:socket\n"
     "root:krova root:member| 1 note:connection fault:socket\n"
     "outsider              | 1 fault:connection\n"
     "root:outsider         | 1 fault:connection fault:socket\n"},

    {"DatagramSocket",
     [](Machine& m) {
         Machine::Make(kDir, 0350, kKrova, kKrova);
         m.StartListener(kKrova, kSock, SOCK_DGRAM, 0007);
     },
     "root krova member     | 1 fault:connection\n"
     "root:krova root:member| 1 fault:connection\n"
     "outsider root:outsider| 1 fault:connection\n",
     "root | the socket at $SOCK is of another kind\n"},
};

}  // namespace gaktest
