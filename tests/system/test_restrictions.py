"""The service runs under the restrictions of its init unit; what they forbid is refused, and seen to be."""

from __future__ import annotations

import errno
import os
import signal
import subprocess
from pathlib import Path


from simulator import Camera, build_folder
from simulator.device import emulator
from support import PAGE, StartCamera, expect_working, status_field, wait_end

CAP_CHOWN_SETGID_AND_SETUID = 1 << 0 | 1 << 6 | 1 << 7

# A program of this machine in the service's place: tries one thing after the other and prints its name and errno.
PROBE = r"""
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
static void tell(const char* name, long result) { printf("%s %d\n", name, result < 0 ? errno : 0); }
static void in_child(const char* name, long number) {
    int status = 0;
    pid_t child;
    fflush(stdout);
    child = fork();
    if (child == 0) { syscall(number, 0, 0, 0, 0, 0); _exit(0); }
    waitpid(child, &status, 0);
    printf("%s %s%d\n", name, WIFSIGNALED(status) ? "signal " : "exit ", WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}
static void paths(void) {
    tell("write /tmp", open("/tmp/probe", O_WRONLY | O_CREAT, 0644));
    tell("write /dev/shm", open("/dev/shm/probe", O_WRONLY | O_CREAT, 0644));
    tell("write /mnt/srvfs", open("/mnt/srvfs/probe", O_WRONLY | O_CREAT, 0644));
    tell("write /mnt", open("/mnt/probe", O_WRONLY | O_CREAT, 0644));
    tell("write /etc", open("/etc/probe", O_WRONLY | O_CREAT, 0644));
    tell("write /run", open("/run/probe", O_WRONLY | O_CREAT, 0644));
    tell("write /var/tmp", open("/var/tmp/probe", O_WRONLY | O_CREAT, 0644));
    tell("write /sys", open("/sys/kernel/probe", O_WRONLY | O_CREAT, 0644));
    tell("home", access("/home/secret", F_OK));
    tell("set-user-id mode", chmod("/tmp/probe", 04755));
    tell("set-group-id file", open("/tmp/probe2", O_WRONLY | O_CREAT, 02755));
    tell("mode without a new file", syscall(SYS_openat, AT_FDCWD, "/", O_RDONLY | O_DIRECTORY, 06755));
    tell("ordinary mode", chmod("/tmp/probe", 0660));
    tell("memory of all", access("/proc/meminfo", F_OK));
}
static void calls(void) {
    char* page = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    tell("memory", page == MAP_FAILED ? -1 : 0);
    tell("executable memory", mprotect(page, 4096, PROT_READ | PROT_EXEC));
    page = mmap(NULL, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    tell("executable writable memory", page == MAP_FAILED ? -1 : 0);
    tell("unix socket", socket(AF_UNIX, SOCK_DGRAM, 0));
    tell("internet socket", socket(AF_INET, SOCK_STREAM, 0));
    tell("netlink socket", socket(AF_NETLINK, SOCK_RAW, 0));
    tell("packet socket", socket(AF_PACKET, SOCK_RAW, 0));
    tell("vsock socket", socket(40, SOCK_STREAM, 0));
    tell("bluetooth socket", socket(31, SOCK_RAW, 0));
    tell("unshare", unshare(CLONE_NEWUSER));
    tell("clone into namespace", syscall(SYS_clone, CLONE_NEWNS | SIGCHLD, 0, 0, 0, 0));
    tell("clone3", syscall(SYS_clone3, 0, 0));
    tell("setns", setns(0, CLONE_NEWNET));
    tell("setuid(0)", setuid(0));
    tell("chroot and mount need a capability", prctl(PR_CAPBSET_READ, 21, 0, 0, 0) == 0 ? 0 : -1);
    in_child("mount", SYS_mount);
    in_child("chroot", SYS_chroot);
    in_child("chown", SYS_fchownat);
    in_child("clock_settime", SYS_clock_settime);
    in_child("sethostname", SYS_sethostname);
    in_child("bpf", SYS_bpf);
    in_child("add_key", SYS_add_key);
    in_child("io_uring_setup", SYS_io_uring_setup);
    in_child("init_module", SYS_init_module);
    in_child("sched_setscheduler", SYS_sched_setscheduler);
    in_child("personality", SYS_personality);
    in_child("ptrace", SYS_ptrace);
    in_child("process_vm_writev", SYS_process_vm_writev);
    in_child("syslog", SYS_syslog);
    in_child("shmget", SYS_shmget);
    in_child("reboot", SYS_reboot);
    in_child("a number without a call", 9999);
    in_child("getpid", SYS_getpid);
}
int main(void) {
    paths();
    calls();
    return 0;
}
"""

ALLOWED = {name: "0" for name in (
    "write /tmp", "write /dev/shm", "write /mnt/srvfs", "mode without a new file", "ordinary mode", "memory",
    "unix socket", "internet socket", "netlink socket", "chroot and mount need a capability")}
ERRORS = {
    **dict.fromkeys(("write /mnt", "write /etc", "write /run", "write /var/tmp", "write /sys"), errno.EROFS),
    **dict.fromkeys(("set-user-id mode", "set-group-id file", "executable memory", "executable writable memory",
                     "unshare", "clone into namespace", "setns"), errno.EPERM),
    **dict.fromkeys(("packet socket", "vsock socket", "bluetooth socket"), errno.EAFNOSUPPORT),
    "home": errno.ENOENT, "clone3": errno.ENOSYS}
KILLED = ("mount", "chroot", "chown", "clock_settime", "sethostname", "bpf", "add_key", "io_uring_setup", "init_module",
          "sched_setscheduler", "personality", "ptrace", "process_vm_writev", "syslog", "shmget", "reboot",
          "a number without a call")


def program(folder: Path, source: str) -> Path:
    """An executable of this machine, made of C source."""
    (folder / "probe.c").write_text(source)
    subprocess.run(["gcc", "-O1", "-Wall", "-Werror", "-o", str(folder / "probe"), str(folder / "probe.c")], check=True)
    return folder / "probe"


def test_what_the_unit_forbids_is_refused_and_what_it_allows_is_not(tmp_path: Path) -> None:
    """The same program, in the service's place, for every build: only the service's own can be foreign or sanitized."""
    camera = Camera(service=program(tmp_path, PROBE), preload=[], wait=False)
    with camera:
        assert camera.service.wait() == 0
    lines = camera.service.stdout.decode().splitlines()
    seen = {line.rsplit(" ", 2 if " signal " in line or " exit " in line else 1)[0]: line for line in lines}
    results = {name: line.removeprefix(name).strip() for name, line in seen.items()}
    # Root may switch; in an ordinary user's sandbox there is no other user.
    assert results.pop("setuid(0)") == ("0" if os.geteuid() == 0 else str(errno.EINVAL))
    # A private /proc takes the right to mount.
    assert results.pop("memory of all") == (str(errno.ENOENT) if os.geteuid() == 0 else "0")
    assert results.pop("getpid") == "exit 0"
    assert results == {**ALLOWED, **{name: str(number) for name, number in ERRORS.items()},
                       **{name: f"signal {int(signal.SIGSYS)}" for name in KILLED}}


def foreign() -> bool:
    return emulator.is_foreign(build_folder() / "bin" / "protocol_process")


def test_the_serving_process_is_restricted_in_all_its_threads(camera: Camera) -> None:
    expect_working(camera)
    assert status_field(camera, "NoNewPrivs") == "1"
    assert status_field(camera, "Umask") == "0022"
    assert int(status_field(camera, "CapEff"), 16) == int(status_field(camera, "CapPrm"), 16) == 0
    assert int(status_field(camera, "CapAmb"), 16) == 0
    if os.geteuid() == 0:
        assert int(status_field(camera, "CapBnd"), 16) == CAP_CHOWN_SETGID_AND_SETUID
    limits = Path(f"/proc/{camera.service.pid}/limits").read_text().splitlines()
    assert next(line.split()[4:6] for line in limits if line.startswith("Max core file size")) == ["0", "0"]
    modes = {line.split()[1] for status in Path(f"/proc/{camera.service.pid}/task").glob("*/status")
             for line in status.read_text().splitlines() if line.startswith("Seccomp:")}
    # Below an emulator there are no filters: it needs calls, and writes code, that the service does not.
    assert modes == ({"0"} if foreign() else {"2"})


FORBIDDEN_CALL = r"""
void* srvfs_calloc(size_t count, size_t size) {
    syscall(SYS_bpf, 0, NULL, 0);
    return NULL;
}
"""


def test_a_forbidden_call_ends_the_service_and_is_seen(with_library: StartCamera) -> None:
    """Of the process that serves, not of a program in its place. Below an emulator the kernel gets to refuse it."""
    if foreign():
        with_library(FORBIDDEN_CALL).wait_for_log("RingBufProducerInit fail")
        return
    killed = 128 + signal.SIGSYS
    camera = with_library(FORBIDDEN_CALL, wait=False, ends_with=(killed,))
    assert camera.service.wait() == killed


def test_page_files_can_be_read_by_itgt_whoever_it_is(camera: Camera) -> None:
    camera.client.command("whiteListDown", camera.platform.task(1))
    wait_end(camera)
    page = camera.path(PAGE)
    assert page.stat().st_mode & 0o777 == 0o644
    assert page.parent.stat().st_mode & 0o777 == 0o755
