#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include "platform_IF/src/proc_if.h"
#include "tests/support/CancelledThread.h"
#include "tests/support/InMachineRoot.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...) {
    char text[1200];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

/// What a reader gives: one line per record, or the result code. Every index must be the record's position.
Lines Describe(uint32_t result, int count, const void* list, const std::function<std::string(int)>& record) {
    if (result != 0) return {Format("%08X %d %s", result, count, list == nullptr ? "null" : "list")};
    Lines lines;
    for (int i = 0; i < count; ++i)
        lines.push_back(record(i));
    if ((count == 0) != (list == nullptr)) lines.emplace_back("list and count differ");
    return lines;
}

Lines ReadPorts() {
    int count = -1;
    SysresPort* list = nullptr;
    const uint32_t result = GetSysresPort(&count, &list);
    Lines lines = Describe(result, count, list, [&](int i) {
        const SysresPort& r = list[i];
        return Format("%u %x-%x [%s] %u %s", r.index, r.start, r.end, r.device, r.typeCode, r.typeText);
    });
    FreeSysresPort(list, count);
    return lines;
}

Lines ReadIrqDma(uint32_t (*reader)(int*, SysresIrqDma**)) {
    int count = -1;
    SysresIrqDma* list = nullptr;
    const uint32_t result = reader(&count, &list);
    Lines lines = Describe(result, count, list, [&](int i) {
        const SysresIrqDma& r = list[i];
        return Format("%u %d [%s] %u %s", r.index, static_cast<int>(r.number), r.device, r.typeCode, r.typeText);
    });
    FreeSysresIrqDma(list, count);
    return lines;
}
const auto ReadIrq = [] { return ReadIrqDma(GetSysresIrq); };
const auto ReadDma = [] { return ReadIrqDma(GetSysresDma); };

/// Expects what a reader gives on a machine on which one of the kernel's lists has this content.
void Expect(const std::string& path, Lines (*reader)(), const std::string& content,
            const testing::Matcher<Lines>& expected) {
    MachineRoot machine(".");
    machine.ReplaceProc(path, content);
    RunInRoot(machine, [&] { EXPECT_THAT(reader(), expected) << content; });
}
void ExpectPorts(const std::string& content, const testing::Matcher<Lines>& expected) {
    Expect("/proc/ioports", ReadPorts, content, expected);
}
void ExpectIrq(const std::string& content, const testing::Matcher<Lines>& expected) {
    Expect("/proc/interrupts", ReadIrq, content, expected);
}
void ExpectDma(const std::string& content, const testing::Matcher<Lines>& expected) {
    Expect("/proc/dma", ReadDma, content, expected);
}

/// The interrupts as grep, sed and scanf give them.
Lines IrqByShell(const fs::path& interrupts) {
    const std::string command = "/bin/grep \"^[ 0-9]*:\" '" + interrupts.string() +
                                "' | sed -e \"s/\\(^[ 0-9]*\\):[ 0-9]*[A-Za-z\\-]* */\\1:/g\"";
    // NOLINTNEXTLINE(cert-env33-c): the shell is what the reader is measured against
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    char line[1025];
    Lines lines;
    while (std::fgets(line, sizeof(line), pipe.get()) != nullptr) {
        int number = 0;
        char text[256] = {};
        if (std::sscanf(line, "%d:%255c", &number, text) != 2) return {"612A7985 0 null"};
        const size_t length = std::strlen(text);
        text[length - 1] = '\0';
        lines.push_back(Format("%zu %d [%s] 5 IRQ", lines.size() + 1, number, text));
    }
    return lines;
}

TEST(SystemResources, PortsKeepNestingAndOrder) {
    ExpectPorts("0000-0cf7 : PCI Bus 0000:00\n  0000-001f : dma1\n    0020-0021 : pic1\n0d00-ffff :\n",
                ElementsAre("1 0-cf7 [ PCI Bus 0000:00] 4 I/O", "2 0-1f [ dma1] 4 I/O", "3 20-21 [ pic1] 4 I/O",
                            "4 d00-ffff [] 4 I/O"));
}

TEST(SystemResources, PortsEndAtTheFirstLineWithoutRange) {
    ExpectPorts("", IsEmpty());
    ExpectPorts("no colon anywhere\n", IsEmpty());
    for (const std::string bad :
         {"what : is this", "0060 : no end", "0060-: no end", "0060 - 0064 : blanks", ": nothing"})
        ExpectPorts("0000-001f : dma1\n" + bad + "\n0080-008f : lost\n", ElementsAre("1 0-1f [ dma1] 4 I/O"));
    // Neither an empty line nor one without a colon is an entry.
    ExpectPorts("\n0000-001f\n0020-0021 : pic1\n123456789-ffffffff0 : wide",
                ElementsAre("1 20-21 [ pic1] 4 I/O", "2 ffffffff-ffffffff [ wide] 4 I/O"));
}

TEST(SystemResources, InterruptTexts) {
    ExpectIrq(
        "           CPU0\n"
        "  0:        123    IO-APIC-edge  timer\n"
        "  9:          0  IO-APIC   9-fasteoi   acpi\n"
        " 17:          4\n"
        "ERR:          0\n",
        ElementsAre("1 0 [timer] 5 IRQ", "2 9 [9-fasteoi   acpi] 5 IRQ", "3 17 [] 5 IRQ"));
    ExpectIrq("  1: 5 X y\n1 2: 5 X z\n", ElementsAre("612A7985 0 null"));  // nothing of it is handed out
    ExpectIrq("   : 5 X y\n", ElementsAre("612A7985 0 null"));
    ExpectIrq("", IsEmpty());
    ExpectIrq("  1: 5 X " + std::string(400, 'y'), ElementsAre("1 1 [" + std::string(254, 'y') + "] 5 IRQ"));
}

TEST(SystemResources, InterruptsAreWhatTheShellMakesOfThem) {
    const std::vector<std::string> recorded = {
        // 2.6.18, two processors
        "           CPU0       CPU1       \n"
        "  0:  231458103          0    IO-APIC-edge  timer\n"
        " 50:    1847211          0   IO-APIC-level  ioc0, uhci_hcd:usb1\n"
        "169:      95820        211         PCI-MSI  eth0\n"
        "ERR:          0\n",
        // 5.14, remapped interrupts
        "            CPU0       CPU1       CPU2       \n"
        "   0:         37          0          0  IR-IO-APIC    2-edge      timer\n"
        " 125:          0     301122          9  IR-PCI-MSI 524288-edge      nvme0q0\n"
        " 126:          3          0          0  IR-PCI-MSIX-0000:3b:00.0    0-edge      eth0-TxRx-0\n"
        " MIS:          0\n",
        // odd ones: no text, no counts, backslash, no blank before the controller, last line without an end
        "7:\n 8:12\n9:1\\A-b c\n 10:5IO-APIC-edge d\n11:   \n  12:   1   2 3com0\n13:\tx\n 14: 1 PIC e",
        ":x\n",
        "15: 1 A " + std::string(1100, 'z') + "\n16: 1 A b\n",
        "17: 1 A " + std::string(1021, 'z') + "18: more\n",
        "17: 1 A " + std::string(1021, 'z') + std::string(1021, ' ') +
            "18: 19: behind a piece that ends with its colon\n",
        "19: 1 A " + std::string(252, 'z') + "\n20: 1 A " + std::string(253, 'z') + "\n",
    };
    for (const std::string& sample : recorded) {
        std::ofstream("interrupts.sample", std::ios::trunc) << sample;
        ExpectIrq(sample, testing::ContainerEq(IrqByShell("interrupts.sample")));
    }
    fs::remove("interrupts.sample");
    EXPECT_EQ(IrqByShell("/proc/interrupts"), ReadIrq()) << "on this machine";
}

TEST(SystemResources, DmaChannels) {
    ExpectDma(" 2: floppy\n 4: cascade\n", ElementsAre("1 2 [ floppy] 6 DMA", "2 4 [ cascade] 6 DMA"));
    ExpectDma("", IsEmpty());
    // A colon in a name is no channel.
    ExpectDma(" 1: sound: left\n 4: cascade", ElementsAre("1 1 [ sound: left] 6 DMA", "2 4 [ cascade] 6 DMA"));
    ExpectDma(" 1: sound\nNo DMA: here\n 4: cascade\n", ElementsAre("1 1 [ sound] 6 DMA"));
}

TEST(SystemResources, Failures) {
    int count = 0;
    SysresPort* ports = nullptr;
    SysresIrqDma* lines = nullptr;
    EXPECT_EQ(0x61294201u, GetSysresPort(nullptr, &ports));
    EXPECT_EQ(0x61294201u, GetSysresPort(&count, nullptr));
    EXPECT_EQ(0x612A4201u, GetSysresIrq(nullptr, &lines));
    EXPECT_EQ(0x612A4201u, GetSysresIrq(&count, nullptr));
    EXPECT_EQ(0x612B4201u, GetSysresDma(nullptr, &lines));
    EXPECT_EQ(0x612B4201u, GetSysresDma(&count, nullptr));

    MachineRoot machine(".");
    const int status = machine.Run([]() -> int {
        if (chroot("/dev") != 0) _exit(100);  // where no /proc is; the search for leaks needs it, hence _exit
        if (ReadPorts() != Lines{"61297981 0 null"}) _exit(1);
        if (ReadIrq() != Lines{"612A7981 0 null"}) _exit(2);
        _exit(ReadDma() != Lines{"612B7981 0 null"} ? 3 : 0);
    });
    EXPECT_EQ(0, status);
}

TEST(ReadFileToBufferTest, WholeFiles) {
    struct File {
        explicit File(size_t size) { fs::resize_file((std::ofstream(name), name), size); }
        ~File() { fs::remove(name); }
        const char* name = "buffer.sample";
    };
    const auto read = [](const char* path, int& size) {
        char* buffer = nullptr;
        const uint32_t result = ReadFileToBuffer(path, &buffer, &size);
        const bool whole = buffer != nullptr && buffer[size] == '\0';
        EXPECT_EQ(result == 0, whole);
        std::free(buffer);
        return result;
    };
    int size = -1;
    for (const int length : {0, 1, 4095, 4096, 4097, 300000}) {
        const File file(static_cast<size_t>(length));
        EXPECT_EQ(0u, read(file.name, size));
        EXPECT_EQ(length, size);
    }
    constexpr size_t kPage = 4096, kPages = 3000;
    auto* const pages =
        static_cast<char*>(mmap(nullptr, kPages * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(pages));
    for (size_t i = 0; i < kPages; i += 2)
        mprotect(pages + i * kPage, kPage, PROT_READ);
    EXPECT_EQ(0u, read("/proc/self/maps", size)) << "a long file of unknown size";
    EXPECT_GT(size, 65536);
    munmap(pages, kPages * kPage);
    EXPECT_EQ(0x612C7981u, read("no.such.file", size));
    EXPECT_EQ(0, size);
    EXPECT_EQ(0x612C7981u, read(".", size)) << "a directory opens, but cannot be read";
    const File huge(size_t{3} << 30);
    EXPECT_EQ(0x612C1202u, read(huge.name, size));
    EXPECT_EQ(0x612C4201u, ReadFileToBuffer("/proc/dma", nullptr, &size));
    EXPECT_TRUE(FinishesWhenCancelled([&] { read("/proc/dma", size); })) << "a cancelled thread loses no descriptor";
}

}  // namespace
