// Makes hosts: hosts FOLDER HOST...
//
// A host is a set of namespaces (network, mounts, processes, name) with a first process that does nothing but be there:
// when it is killed, everything on the host ends. FOLDER/HOST/files is copied onto the host; FOLDER/HOST/layer then
// holds every file written there; FOLDER/HOST/pid gets the number of the first process. Returns when all hosts stand.
// A program instead of a script with unshare and mount, because under emulation each of the forty processes counts.
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace fs = std::filesystem;

static void check(bool good, const std::string &what) {
  if (!good) throw std::runtime_error(what + ": " + strerror(errno));
}

static void mountAt(const std::string &type, const std::string &point, unsigned long flags,
                    const std::string &options) {
  check(mount(type.c_str(), point.c_str(), type.c_str(), flags, options.c_str()) == 0,
        "mount " + type + " at " + point);
}

static void write(const std::string &path, const std::string &text) {
  std::ofstream file(path);
  file << text << std::flush;
  check(file.good(), "write " + path);
}

// What a host may write to are layers over what all hosts share, so that afterwards the layer holds what was written.
static void layOver(const fs::path &folder, const std::string &directory) {
  fs::path layer = folder / "layer" / directory, work = folder / "work" / directory;
  fs::create_directories(layer);
  fs::create_directories(work);
  fs::permissions(layer, fs::status("/" + directory).permissions());
  mountAt("overlay", "/" + directory, 0,
          "lowerdir=/" + directory + ",upperdir=" + layer.string() + ",workdir=" + work.string());
}

static void loopbackUp() {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
  check(ioctl(fd, SIOCSIFFLAGS, &request) == 0, "set lo up");
  close(fd);
}

static void furnish(const fs::path &folder, const std::string &name) {
  check(sethostname(name.c_str(), name.size()) == 0, "name the host");
  check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
  for (const char *directory : {"etc", "var", "tmp", "root"}) layOver(folder, directory);
  mountAt("proc", "/proc", 0, "");
  mountAt("tmpfs", "/run", 0, "mode=755");
  fs::create_directory("/run/lock");
  mountAt("devpts", "/dev/pts", 0, "newinstance,mode=620,ptmxmode=666");
  mountAt("sysfs", "/sys", MS_RDONLY, "");
  // No waiting for duplicate addresses: snapshots would differ by nothing but the time they were taken at.
  write("/proc/sys/net/ipv6/conf/default/accept_dad", "0");
  write("/proc/sys/net/ipv4/ip_forward", "1");
  loopbackUp();
  if (fs::exists(folder / "files"))
    fs::copy(folder / "files", "/", fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

// In the first process of the host. It never returns; its end of the pipe tells that the host stands.
[[noreturn]] static void live(const fs::path &folder, const std::string &name, int ready) try {
  furnish(folder, name);
  // Ignoring the signal of dead children lets the kernel reap orphans, which is all a first process has to do here.
  signal(SIGCHLD, SIG_IGN);
  check(chdir("/") == 0 && ::write(ready, "+", 1) == 1, "report the host");
  close(ready);
  for (;;) pause();
} catch (const std::exception &error) {
  std::cerr << "hosts: " << name << ": " << error.what() << "\n";
  _exit(1);
}

static void make(const fs::path &folder, const std::string &name, int ready) {
  check(unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWPID) == 0, "make namespaces");
  pid_t first = fork();
  check(first >= 0, "fork");
  if (first == 0) live(folder, name, ready);
  write(folder / "pid", std::to_string(first) + "\n");
}

int main(int argc, char **argv) try {
  int ready[2];
  check(pipe2(ready, O_CLOEXEC) == 0, "pipe");
  for (int i = 2; i < argc; ++i) {
    // A process can make a namespace of processes for its children only once, so each host is made by one of its own.
    pid_t maker = fork();
    check(maker >= 0, "fork");
    if (maker == 0) {
      make(fs::path(argv[1]) / argv[i], argv[i], ready[1]);
      _exit(0);
    }
  }
  close(ready[1]);
  char buffer;
  int standing = 0;
  while (read(ready[0], &buffer, 1) == 1) ++standing;
  while (wait(nullptr) > 0) {
  }
  if (standing != argc - 2) throw std::runtime_error("not all hosts stand");
} catch (const std::exception &error) {
  std::cerr << "hosts: " << error.what() << "\n";
  return 1;
}
