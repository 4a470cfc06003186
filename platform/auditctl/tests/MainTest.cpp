// Our auditctl as a program: what it says and its status when it cannot do what it is asked,
// without changing the kernel's rules (it runs without the right to, or without a socket at all).
#include "TestCommon.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace {

// The program's arguments, run without audit rights: as nobody when this test runs as root.
std::vector<std::string> Unprivileged(std::vector<std::string> args)
{
    if (geteuid() == 0) {
        args.insert(args.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    }
    return args;
}

// Runs args with socket() refused as by a kernel built without audit (a seccomp filter set in
// the child before exec, so the program itself starts normally); its status and standard error.
int WithoutSockets(const std::vector<std::string>& args, std::string& err)
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_socket, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPROTONOSUPPORT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{static_cast<unsigned short>(std::size(code)), code};
    std::vector<char*> argv;  // made before the fork: the child calls only what is safe there
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    int pipeFds[2];
    if (pipe(pipeFds) != 0) {
        return -1;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeFds[1], STDERR_FILENO);
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0) {
            execv(argv[0], argv.data());
        }
        _exit(127);
    }
    close(pipeFds[1]);
    char buffer[4096];
    for (ssize_t got; (got = read(pipeFds[0], buffer, sizeof(buffer))) > 0;) {
        err.append(buffer, static_cast<size_t>(got));
    }
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(AuditctlMain, AKeyRemovalWithoutAuditInTheKernelRightsOrAKeyFailsAndSaysWhy)
{
    TestSupport::Program denied(Unprivileged({HW_AUDITCTL, "-D", "-k", "no_task***"}));
    EXPECT_EQ(denied.Wait(), 1);
    EXPECT_EQ(denied.err.rfind("auditctl: cannot ask the kernel for its rules: ", 0), 0U) << denied.err;

    TestSupport::Program empty({HW_AUDITCTL, "-D", "-k", ""});
    EXPECT_EQ(empty.Wait(), 2);
    EXPECT_EQ(empty.err, "auditctl: -D -k needs a non-empty key text\n");

    std::string err;
    EXPECT_EQ(WithoutSockets({HW_AUDITCTL, "-D", "-k", "no_task***"}, err), 1);
    EXPECT_NE(err.find("auditctl: cannot open the audit netlink socket: Protocol not supported\n"), std::string::npos) << err;
}
