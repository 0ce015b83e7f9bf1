// A kernel driver that answers as local Bluetooth radios do and keeps the commands that it got. Its device is
// \\.\ZiqbleRadios. It is loaded into Wine only, which gives it one request at a time.
#include <intrin.h>

// MinGW-w64 10 declares these two functions in both headers.
#define InterlockedBitTestAndSet wdmInterlockedBitTestAndSet
#define InterlockedBitTestAndReset wdmInterlockedBitTestAndReset
#include <ddk/wdm.h>

#include "tests/wine_devices/test_radio.h"

namespace wine_devices {

namespace {

struct Radio {
    RadioSetup setup;
    RadioReport report;
};

ULONG radioCount;
Radio radios[kMaxRadios];

struct Request {
    ULONG code;
    void* buffer;  // for both input and output
    ULONG inputSize;
    ULONG outputSize;
};

struct Answer {
    NTSTATUS status;
    ULONG bytes;
};

// The status that a program sees as this Windows error.
NTSTATUS statusOf(ULONG error) {
    return error ? static_cast<NTSTATUS>(0xC0070000 | error) : STATUS_SUCCESS;
}

// All bytes but the two versions depend on their place, so that a version read from a wrong place shows.
Answer giveInfo(const Request& request, const Radio& radio) {
    constexpr ULONG kSize = 292;
    if (request.inputSize != 0 || request.outputSize != kSize) return {STATUS_INVALID_PARAMETER, 0};
    auto* const reply = static_cast<UCHAR*>(request.buffer);
    for (ULONG at = 0; at < kSize; ++at)
        reply[at] = static_cast<UCHAR>(at | 0x80);
    reply[278] = radio.setup.hciVersion;
    reply[291] = radio.setup.lmpVersion;
    return {statusOf(radio.setup.infoError), kSize};
}

Answer takeCommand(const Request& request, Radio& radio) {
    const ULONG index = radio.report.commandCount;
    auto& command = radio.report.commands[index];
    if (index == kMaxCommands || request.inputSize > sizeof command.input)
        return {STATUS_INVALID_PARAMETER, 0};
    ++radio.report.commandCount;
    command.inputSize = request.inputSize;
    command.outputSize = request.outputSize;
    RtlCopyMemory(command.input, request.buffer, request.inputSize);
    return {statusOf(radio.setup.commandErrors[index]), 0};
}

Answer giveName(const Request& request, const Radio& radio) {
    if (request.outputSize < sizeof radio.setup.name) return {STATUS_BUFFER_TOO_SMALL, 0};
    RtlCopyMemory(request.buffer, radio.setup.name, sizeof radio.setup.name);
    return {statusOf(radio.setup.nameError), sizeof radio.setup.name};
}

Answer answerAsRadio(const Request& request, Radio& radio) {
    switch (request.code) {
        case kGetName:
            return giveName(request, radio);
        case kGetLocalRadioInfo:
            return giveInfo(request, radio);
        case kScanCommand:
            return takeCommand(request, radio);
        default:
            return {STATUS_INVALID_DEVICE_REQUEST, 0};
    }
}

Answer selectRadio(const Request& request, FILE_OBJECT& file) {
    const ULONG index = *static_cast<const ULONG*>(request.buffer);
    if (index >= radioCount) return {STATUS_NO_SUCH_DEVICE, 0};
    file.FsContext = &radios[index];
    ++radios[index].report.openFiles;
    return {STATUS_SUCCESS, 0};
}

Answer setUp(const Request& request) {
    radioCount = request.inputSize / sizeof(RadioSetup);
    for (ULONG index = 0; index < radioCount; ++index)
        radios[index].setup = static_cast<const RadioSetup*>(request.buffer)[index];
    for (Radio& radio : radios)
        radio.report.commandCount = 0;
    return {STATUS_SUCCESS, 0};
}

Answer report(const Request& request) {
    for (ULONG index = 0; index < kMaxRadios; ++index)
        static_cast<RadioReport*>(request.buffer)[index] = radios[index].report;
    return {STATUS_SUCCESS, kMaxRadios * sizeof(RadioReport)};
}

Answer answer(const Request& request, FILE_OBJECT& file) {
    if (file.FsContext) return answerAsRadio(request, *static_cast<Radio*>(file.FsContext));
    switch (request.code) {
        case kSelectRadio:
            return selectRadio(request, file);
        case kSetUp:
            return setUp(request);
        case kReport:
            return report(request);
        default:
            return {STATUS_INVALID_DEVICE_REQUEST, 0};
    }
}

NTSTATUS complete(IRP* irp, Answer answer) {
    irp->IoStatus.Status = answer.status;
    irp->IoStatus.Information = answer.bytes;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return answer.status;
}

NTSTATUS WINAPI onCreate(DEVICE_OBJECT*, IRP* irp) {
    return complete(irp, {STATUS_SUCCESS, 0});
}

NTSTATUS WINAPI onClose(DEVICE_OBJECT*, IRP* irp) {
    const FILE_OBJECT& file = *IoGetCurrentIrpStackLocation(irp)->FileObject;
    if (file.FsContext) --static_cast<Radio*>(file.FsContext)->report.openFiles;
    return complete(irp, {STATUS_SUCCESS, 0});
}

NTSTATUS WINAPI onControl(DEVICE_OBJECT*, IRP* irp) {
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    const auto& parameters = location.Parameters.DeviceIoControl;
    const Request request{parameters.IoControlCode, irp->AssociatedIrp.SystemBuffer,
                          parameters.InputBufferLength, parameters.OutputBufferLength};
    return complete(irp, answer(request, *location.FileObject));
}

UNICODE_STRING text(const wchar_t* zeroTerminated) {
    UNICODE_STRING result;
    RtlInitUnicodeString(&result, zeroTerminated);
    return result;
}

void WINAPI unload(DRIVER_OBJECT* driver) {
    UNICODE_STRING link = text(L"\\DosDevices\\ZiqbleRadios");
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(driver->DeviceObject);
}

}  // namespace

extern "C" NTSTATUS WINAPI DriverEntry(DRIVER_OBJECT* driver, UNICODE_STRING*) {
    driver->MajorFunction[IRP_MJ_CREATE] = onCreate;
    driver->MajorFunction[IRP_MJ_CLOSE] = onClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = onControl;
    driver->DriverUnload = unload;
    UNICODE_STRING name = text(L"\\Device\\ZiqbleRadios");
    UNICODE_STRING link = text(L"\\DosDevices\\ZiqbleRadios");
    DEVICE_OBJECT* device = nullptr;
    const NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    return NT_SUCCESS(status) ? IoCreateSymbolicLink(&link, &name) : status;
}

}  // namespace wine_devices
