#include "AuditUtil.h"

#include "AuditLogging.h"

#include "container/ContainerMetaInfo.h"
#include "framework/Engine.h"
#include "framework/Task.h"
#include "sdk/BoundedStr.h"
#include "sdk/ExecuteCmdUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/StrUtils.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Engine {

namespace {

constexpr size_t kPathBufferSize = 4096;
constexpr size_t kCmdOutputSize = 4096;

// Process-wide container provider cache; see GetContainerMeta.
Framework::ContainerMetaInfo* g_containerMeta = nullptr;
int g_containerMetaCalls = 0;

}  // namespace

bool LinuxAuditUtil::getLibraryPathEnv(char* buffer, size_t length)
{
    if (buffer == nullptr || length == 0) {
        return false;
    }
    std::string home;
    if (SDK::PathUtils::GetInstallationPath(home) != 0) {
        return false;
    }
    const std::string assignment = "LD_LIBRARY_PATH=" + home + "lib";
    // Callers always hand a buffer of kPathBufferSize bytes; that is the bound.
    return SDK::strcpy_s(buffer, kPathBufferSize, assignment.c_str()) == 0;
}

bool LinuxAuditUtil::ExecAuditCmd(const std::string& args, std::string& output)
{
    std::string home;
    if (SDK::PathUtils::GetInstallationPath(home) != 0) {
        return false;
    }
    const std::string program = home + "bin/auditctl";
    if (!SDK::FileUtils::IsFile(program)) {
        return false;
    }
    const std::string command = program + " " + args;
    char libraryPath[kPathBufferSize] = {0};
    if (!getLibraryPathEnv(libraryPath, sizeof(libraryPath))) {
        AUDIT_LOG_ERROR("Get audit library path failed.");
        return false;
    }
    const int status = SDK::ExecuteCmdUtils::ExecuteCmd(std::string(libraryPath) + " " + command, output, kCmdOutputSize);
    AUDIT_LOG_INFO("Execute cmd audit(%s), ret(%d), result(%s), library path(%s).", command, status, output,
                   std::string(libraryPath));
    return status == 0;
}

bool LinuxAuditUtil::ExecAuditCmd(const std::string& args)
{
    std::string scratch;
    return ExecAuditCmd(args, scratch);
}

std::string LinuxAuditUtil::GetField(const std::string& name, const std::string& line)
{
    const std::string needle = name + "=";
    const size_t at = line.find(needle);
    if (at == std::string::npos) {
        return {};
    }
    const size_t start = at + needle.size();
    // ENRICHED lines append auditd's interpretation after a 0x1d byte; it ends a value too.
    const size_t end = line.find_first_of(" \x1d", at);
    std::string value = line.substr(start, end == std::string::npos || end < start ? std::string::npos : end - start);
    TrimQuotation(value);
    return value;
}

bool LinuxAuditUtil::TrimQuotation(std::string& text)
{
    text = SDK::StrUtils::Trim(text);
    if (text.empty()) {
        return false;
    }
    bool opened = false;
    if (text.front() == '"') {
        text.front() = ' ';
        opened = true;
    }
    if (text.back() == '"') {
        text.back() = ' ';
    }
    if (opened) {
        text = SDK::StrUtils::Trim(text);
    }
    return opened;
}

void LinuxAuditUtil::TrimPrefix(std::string& text, const std::string& prefix)
{
    if (SDK::StrUtils::StartWith(text, prefix)) {
        text.erase(0, prefix.size());
    }
}

void LinuxAuditUtil::toHexString(std::string& text)
{
    if (SDK::StrUtils::StartWith(text, "0x")) {
        text.erase(0, 2);
        return;
    }
    const long value = std::stol(text, nullptr, 10);
    if (value < INT32_MIN || value > INT32_MAX) {
        throw std::out_of_range("toHexString: " + text);
    }
    char buffer[16] = {0};
    SDK::snprintf_s(buffer, sizeof(buffer), "%x", static_cast<uint32_t>(static_cast<int32_t>(value)));
    text = buffer;
}

SDK::AuditFields& LinuxAuditUtil::getSyscallMsg(SDK::AuditEvent& event)
{
    static SDK::AuditFields empty;
    if (SDK::AuditFields* fields = event.FindRecord("SYSCALL")) {
        return *fields;
    }
    AUDIT_LOG_ERROR("can not get syscall record");
    empty.Clear();
    return empty;
}

Framework::ContainerMetaInfo* LinuxAuditUtil::GetContainerMeta()
{
    ++g_containerMetaCalls;
    if (g_containerMeta != nullptr || g_containerMetaCalls > 9) {
        return g_containerMeta;
    }
    Framework::Engine* engine = Framework::Engine::Current();
    Framework::Task* task = engine == nullptr ? nullptr : engine->FindTask(Framework::kContainerCollectTaskName);
    g_containerMeta = dynamic_cast<Framework::ContainerMetaInfo*>(task);
    return g_containerMeta;
}

void LinuxAuditUtil::ResetContainerMetaCache()
{
    g_containerMeta = nullptr;
    g_containerMetaCalls = 0;
}

std::string LinuxAuditUtil::RealPathOrEmpty(const char* path)
{
    if (path == nullptr) {
        return {};
    }
    char resolved[PATH_MAX + 1] = {0};
    static_assert(PATH_MAX == kPathBufferSize, "path buffers are 4096 bytes");
    if (realpath(path, resolved) != nullptr) {
        return resolved;
    }
    // glibc leaves the prefix it could resolve in the buffer when a component is missing.
    return errno == ENOENT ? std::string(resolved) : std::string();
}

bool IsChildFileNoRecursive(const std::string& dir, const std::string& file)
{
    if (dir.empty() || file.empty() || dir.size() >= file.size()) {
        return false;
    }
    if (file.compare(0, dir.size(), dir) != 0 || file[dir.size()] != '/') {
        return false;
    }
    return file.find('/', dir.size() + 1) == std::string::npos;
}

}  // namespace Engine
