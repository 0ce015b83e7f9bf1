#include "security.h"

#include <windows.h>

#include <objbase.h>
#include <sddl.h>

#include <cstddef>
#include <memory>
#include <vector>

namespace platform {

namespace {

constexpr const wchar_t* kDescriptor =
    L"O:BAG:BAD:(A;;0x7;;;PS)(A;;0x3;;;SY)(A;;0x7;;;BA)(A;;0x3;;;AC)(A;;0x3;;;LS)(A;;0x3;;;NS)";

struct LocalFreeDeleter {
    void operator()(void* memory) const { ::LocalFree(memory); }
};
using Descriptor = std::unique_ptr<void, LocalFreeDeleter>;

Descriptor selfRelativeDescriptor() {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(kDescriptor, SDDL_REVISION_1, &descriptor,
                                                           nullptr);
    return Descriptor(descriptor);
}

// The room of an absolute descriptor and of what it points at: MakeAbsoluteSD copies each part.
struct AbsoluteDescriptor {
    std::vector<std::byte> dacl;
    std::vector<std::byte> sacl;
    std::vector<std::byte> owner;
    std::vector<std::byte> group;
    std::vector<std::byte> memory;
};

bool findParts(PSECURITY_DESCRIPTOR descriptor, AbsoluteDescriptor& parts) {
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL sacl = nullptr;
    PACL dacl = nullptr;
    PSID owner = nullptr;
    PSID group = nullptr;
    if (!::GetSecurityDescriptorSacl(descriptor, &present, &sacl, &defaulted) ||
        !::GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted) ||
        !::GetSecurityDescriptorOwner(descriptor, &owner, &defaulted) ||
        !::GetSecurityDescriptorGroup(descriptor, &group, &defaulted)) {
        return false;
    }
    parts.sacl.resize(sacl ? sacl->AclSize : 0);
    parts.dacl.resize(dacl ? dacl->AclSize : 0);
    parts.owner.resize(owner ? ::GetLengthSid(owner) : 0);
    parts.group.resize(group ? ::GetLengthSid(group) : 0);
    return true;
}

template <class T>
T* orNull(std::vector<std::byte>& memory) {
    return memory.empty() ? nullptr : reinterpret_cast<T*>(memory.data());
}

bool makeAbsolute(PSECURITY_DESCRIPTOR descriptor, AbsoluteDescriptor& parts, DWORD& size) {
    auto daclSize = static_cast<DWORD>(parts.dacl.size());
    auto saclSize = static_cast<DWORD>(parts.sacl.size());
    auto ownerSize = static_cast<DWORD>(parts.owner.size());
    auto groupSize = static_cast<DWORD>(parts.group.size());
    return ::MakeAbsoluteSD(descriptor, orNull<void>(parts.memory), &size, orNull<ACL>(parts.dacl), &daclSize,
                            orNull<ACL>(parts.sacl), &saclSize, orNull<void>(parts.owner), &ownerSize,
                            orNull<void>(parts.group), &groupSize) != FALSE;
}

DWORD convertToAbsolute(PSECURITY_DESCRIPTOR descriptor, AbsoluteDescriptor& absolute) {
    DWORD size = 0;
    if (!findParts(descriptor, absolute)) return ::GetLastError();
    if (makeAbsolute(descriptor, absolute, size)) return ERROR_SUCCESS;
    if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER) return ::GetLastError();
    absolute.memory.resize(size);
    if (::InitializeSecurityDescriptor(absolute.memory.data(), SECURITY_DESCRIPTOR_REVISION) &&
        makeAbsolute(descriptor, absolute, size)) {
        return ERROR_SUCCESS;
    }
    const DWORD error = ::GetLastError();
    absolute.memory.clear();
    return error;
}

}  // namespace

bool setUpComSecurity() {
    const Descriptor descriptor = selfRelativeDescriptor();
    if (!descriptor) return false;
    // The descriptor is prepared and deliberately not handed to CoInitializeSecurity: COM's own has always
    // served. For the same reason neither outcome is looked at.
    AbsoluteDescriptor absolute;
    static_cast<void>(convertToAbsolute(descriptor.get(), absolute));
    static_cast<void>(::CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                             RPC_C_IMP_LEVEL_IDENTIFY, nullptr, EOAC_NONE, nullptr));
    return true;
}

}  // namespace platform
