// krfilter-dicom-decoder FILE: decodes one DICOM file for the tool and writes
// the report described in dicom_decoding.h to its standard output.
//
// It runs as a process of its own, started afresh for every file, because the
// toolkit underneath stops its process (an assertion) on some damaged files,
// can loop or allocate without end on forged ones, and on a lossless JPEG its
// own codec rejects it starts an outside program through the shell. Before it
// touches the file, the process forbids itself to start programs and caps its
// memory; the tool waits a bounded time and takes whatever ends otherwise as
// a refused file.
#include <gdcmDataSet.h>
#include <gdcmExplicitDataElement.h>
#include <gdcmImage.h>
#include <gdcmImageReader.h>
#include <gdcmSequenceOfFragments.h>
#include <gdcmSwapper.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/syscall.h>
#endif

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "dicom_decoding.h"

namespace krf::tools::formats {
namespace {

const gdcm::Tag kPixelData(0x7fe0, 0x0010);
const gdcm::Tag kNumberOfFrames(0x0028, 0x0008);
const gdcm::Tag kRescaleSlope(0x0028, 0x1053);
const gdcm::Tag kRescaleIntercept(0x0028, 0x1052);

std::string text_of(const gdcm::DataSet& dataset, const gdcm::Tag& tag) {
    if (!dataset.FindDataElement(tag)) return {};
    const gdcm::ByteValue* value = dataset.GetDataElement(tag).GetByteValue();
    if (value == nullptr) return {};
    std::string text(value->GetPointer(), value->GetLength());
    while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
    return text;
}

// The toolkit accepts a file that ends inside its uncompressed pixel data and
// fills the missing samples with zeros (it says so only in a warning, which
// release builds drop). Finds the Pixel Data header with this length, in
// explicit or implicit little-endian form, and tells whether the file ends
// before the value does. A file where no such header is found is left to the
// toolkit's judgement.
bool ends_inside_pixel_data(const std::string& path, std::uint32_t length) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    unsigned char size[4];
    for (int i = 0; i < 4; ++i) size[i] = static_cast<unsigned char>(length >> (8 * i));
    const std::string tag("\xe0\x7f\x10\x00", 4), size_bytes(reinterpret_cast<const char*>(size), 4);
    const std::string headers[] = {tag + "OW" + std::string(2, '\0') + size_bytes,
                                   tag + "OB" + std::string(2, '\0') + size_bytes, tag + size_bytes};
    for (const std::string& header : headers) {
        const std::size_t at = bytes.rfind(header);
        if (at != std::string::npos) return bytes.size() - (at + header.size()) < length;
    }
    return false;
}

struct FrameSize {
    std::uint64_t width = 0, height = 0;  // height 0: left to a later marker (JPEG's DNL)
};

std::uint32_t big_endian(const unsigned char* p, int bytes) {
    std::uint32_t v = 0;
    for (int i = 0; i < bytes; ++i) v = (v << 8) | p[i];
    return v;
}

// The frame size that a compressed frame's own header declares: the codec
// allocates by it, whatever the DICOM attributes say. Knows JPEG (all
// processes), JPEG-LS and JPEG 2000 codestreams; false for anything else.
bool declared_frame_size(const unsigned char* data, std::size_t size, FrameSize& frame) {
    if (size >= 4 && data[0] == 0xff && data[1] == 0xd8) {
        std::size_t at = 2;
        while (at + 4 <= size) {
            if (data[at] != 0xff) return false;
            const unsigned marker = data[at + 1];
            if (marker == 0xff) {  // fill byte
                ++at;
                continue;
            }
            const std::size_t length = big_endian(data + at + 2, 2);
            const bool start_of_frame = (marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 &&
                                         marker != 0xcc) ||
                                        marker == 0xf7;
            if (start_of_frame) {
                if (length < 8 || at + 2 + length > size) return false;
                frame.height = big_endian(data + at + 5, 2);
                frame.width = big_endian(data + at + 7, 2);
                return true;
            }
            if (marker == 0xda || length < 2) return false;  // scan data before any frame header
            at += 2 + length;
        }
        return false;
    }
    // JPEG 2000: the SIZ segment right after the codestream's start, possibly
    // inside a JP2 file's boxes.
    const unsigned char start[] = {0xff, 0x4f, 0xff, 0x51};
    for (std::size_t at = 0; at + 4 + 2 + 2 + 16 <= size; ++at) {
        if (std::memcmp(data + at, start, 4) != 0) continue;
        const unsigned char* siz = data + at + 4 + 2 + 2;
        const std::uint32_t x = big_endian(siz, 4), y = big_endian(siz + 4, 4);
        const std::uint32_t x0 = big_endian(siz + 8, 4), y0 = big_endian(siz + 12, 4);
        if (x0 > x || y0 > y) return false;
        frame.width = x - x0;
        frame.height = y - y0;
        return true;
    }
    return false;
}

// Checks of the compressed pixel data against the rows and columns, made
// before the codec sees it: a frame header that declares another size, or
// fewer bytes than the coding can possibly produce the samples from, mark a
// forged or damaged file that would otherwise cost a huge allocation.
std::string compressed_data_problem(const gdcm::DataSet& dataset, const gdcm::TransferSyntax& syntax,
                                    std::uint64_t width, std::uint64_t height, int allocated) {
    const gdcm::SequenceOfFragments* fragments =
        dataset.FindDataElement(kPixelData) ? dataset.GetDataElement(kPixelData).GetSequenceOfFragments() : nullptr;
    if (fragments == nullptr || fragments->GetNumberOfFragments() == 0) return "DICOM compressed pixel data missing";
    std::uint64_t compressed = 0;
    for (std::size_t i = 0; i < fragments->GetNumberOfFragments(); ++i) {
        const gdcm::ByteValue* value = fragments->GetFragment(i).GetByteValue();
        if (value != nullptr) compressed += value->GetLength();
    }
    const gdcm::ByteValue* first = fragments->GetFragment(0).GetByteValue();
    FrameSize frame;
    if (first != nullptr &&
        declared_frame_size(reinterpret_cast<const unsigned char*>(first->GetPointer()), first->GetLength(), frame) &&
        (frame.width != width || (frame.height != 0 && frame.height != height)))
        return "DICOM compressed frame of " + std::to_string(frame.width) + " x " + std::to_string(frame.height) +
               " in an image of " + std::to_string(width) + " x " + std::to_string(height);
    // Lossless JPEG spends at least one bit on every sample; run-length
    // coding at least two bytes on every 128 bytes of a plane.
    const std::uint64_t samples = width * height;
    const bool lossless_jpeg = syntax == gdcm::TransferSyntax::JPEGLosslessProcess14 ||
                               syntax == gdcm::TransferSyntax::JPEGLosslessProcess14_1;
    if ((lossless_jpeg && compressed * 8 < samples) ||
        (syntax == gdcm::TransferSyntax::RLELossless && compressed * 64 < samples * (allocated / 8)))
        return "DICOM compressed pixel data too short for its rows and columns";
    return {};
}

struct Decoded {
    int height = 0, width = 0, bit_depth = 0, white = 0;
    bool inverted = false;
    std::string notes;
    std::vector<std::uint16_t> samples;
    gdcm::DataSet attributes;
};

std::string decode(const std::string& path, Decoded& out) {
    gdcm::ImageReader reader;
    reader.SetFileName(path.c_str());
    const bool read = reader.Read();
    if (!read) {
        const gdcm::DataSet& partial = reader.GetFile().GetDataSet();
        if (!partial.IsEmpty() && !partial.FindDataElement(kPixelData)) return "DICOM file without pixel data";
        return "corrupt, truncated or unsupported DICOM file";
    }
    const gdcm::Image& dicom = reader.GetImage();
    const gdcm::DataSet& dataset = reader.GetFile().GetDataSet();
    const unsigned* dims = dicom.GetDimensions();
    const std::string frames = text_of(dataset, kNumberOfFrames);
    if ((dicom.GetNumberOfDimensions() > 2 && dims[2] > 1) || (!frames.empty() && std::atoi(frames.c_str()) > 1))
        return "multi-frame DICOM is not supported (" + (frames.empty() ? std::to_string(dims[2]) : frames) +
               " frames)";
    const gdcm::PixelFormat format = dicom.GetPixelFormat();
    const gdcm::PhotometricInterpretation photometric = dicom.GetPhotometricInterpretation();
    if (format.GetSamplesPerPixel() != 1)
        return "not a greyscale image (DICOM with " + std::to_string(format.GetSamplesPerPixel()) +
               " samples per pixel)";
    if (photometric != gdcm::PhotometricInterpretation::MONOCHROME1 &&
        photometric != gdcm::PhotometricInterpretation::MONOCHROME2)
        return std::string("not a greyscale image (DICOM photometric interpretation ") +
               gdcm::PhotometricInterpretation::GetPIString(photometric) + ")";
    const int allocated = format.GetBitsAllocated(), stored = format.GetBitsStored();
    if (allocated != 8 && allocated != 16)
        return "DICOM with " + std::to_string(allocated) + " bits allocated (only 8 and 16 are supported)";
    if (stored < 1 || stored > allocated)
        return "DICOM BitsStored " + std::to_string(stored) + " does not fit BitsAllocated " +
               std::to_string(allocated);
    if (format.GetHighBit() != stored - 1) return "DICOM HighBit other than BitsStored - 1 is not supported";
    if (format.GetPixelRepresentation() != 0) return "signed DICOM samples are not supported";
    if (!size_acceptable(dims[1], dims[0])) return size_problem(dims[1], dims[0]);

    const std::size_t count = static_cast<std::size_t>(dims[0]) * dims[1];
    const std::size_t bytes = count * static_cast<std::size_t>(allocated / 8);
    if (dicom.GetBufferLength() != bytes) return "DICOM pixel data of unexpected length";
    if (dicom.GetTransferSyntax().IsEncapsulated()) {
        const std::string problem =
            compressed_data_problem(dataset, dicom.GetTransferSyntax(), dims[0], dims[1], allocated);
        if (!problem.empty()) return problem;
    } else {
        // The buffer length above follows from the rows and columns alone;
        // the element itself must hold that many bytes, or the toolkit would
        // hand out samples the file does not have.
        const gdcm::ByteValue* stored_value = dataset.GetDataElement(kPixelData).GetByteValue();
        if (stored_value == nullptr || stored_value->GetLength() < bytes)
            return "DICOM pixel data shorter than its rows and columns need";
        if (ends_inside_pixel_data(path, stored_value->GetLength()))
            return "truncated DICOM file (the pixel data ends early)";
    }
    // 16-bit samples come in host (little-endian) order straight into the
    // report's array; 8-bit ones are widened from a buffer of their own.
    out.samples.resize(count);
    std::vector<char> narrow(allocated == 8 ? bytes : 0);
    char* target = allocated == 8 ? narrow.data() : reinterpret_cast<char*>(out.samples.data());
    if (!dicom.GetBuffer(target))
        return std::string("cannot decode the DICOM pixel data (transfer syntax ") +
               dicom.GetTransferSyntax().GetString() + ")";
    out.height = static_cast<int>(dims[1]);
    out.width = static_cast<int>(dims[0]);
    out.bit_depth = allocated;
    out.white = static_cast<int>((1u << stored) - 1);
    // Bits above BitsStored are no part of the sample (old files keep
    // overlays there): they are dropped.
    const auto mask = static_cast<std::uint16_t>(out.white);
    if (allocated == 8)
        for (std::size_t i = 0; i < count; ++i) out.samples[i] = static_cast<unsigned char>(narrow[i]);
    for (std::uint16_t& v : out.samples) v &= mask;
    out.inverted = photometric == gdcm::PhotometricInterpretation::MONOCHROME1;
    out.notes = out.inverted ? "MONOCHROME1 (0 is white)" : "MONOCHROME2 (0 is black)";
    if (dataset.FindDataElement(kRescaleSlope) || dataset.FindDataElement(kRescaleIntercept))
        out.notes += "; rescale slope/intercept not applied, filters see the stored values";
    out.attributes = dataset;
    out.attributes.Remove(kPixelData);
    return {};
}

// Where the report goes: the standard output as the tool set it up, moved
// aside so that nothing the toolkit's codecs print can end up in the report.
int report_fd = -1;

bool write_all(const void* data, std::size_t size) {
    const char* at = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = write(report_fd, at, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

bool write_int(std::int64_t v) { return write_all(&v, sizeof v); }
bool write_text(const std::string& text) {
    return write_int(static_cast<std::int64_t>(text.size())) && write_all(text.data(), text.size());
}

bool write_report(const std::string& problem, const Decoded& image) {
    if (!problem.empty()) return write_all("E", 1) && write_all(problem.data(), problem.size());
    std::ostringstream dataset;
    image.attributes.Write<gdcm::ExplicitDataElement, gdcm::SwapperNoOp>(dataset);
    return write_all("O", 1) && write_int(image.height) && write_int(image.width) && write_int(image.bit_depth) &&
           write_int(image.white) && write_int(image.inverted ? 1 : 0) && write_text(image.notes) &&
           write_text(dataset.str()) && write_all(image.samples.data(), image.samples.size() * sizeof(std::uint16_t));
}

// No starting of programs from here on: fork alone is harmless, but exec
// would run whatever the toolkit falls back to, outside every limit set here.
void forbid_exec() {
#if defined(__linux__) && defined(__x86_64__)
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_execve, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_execveat, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
    };
    sock_fprog program{static_cast<unsigned short>(std::size(rules)), rules};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        _exit(3);
#endif
}

// The current size of the address space, which under a sanitizer includes
// terabytes of reserved shadow memory: the cap is set above it.
std::uint64_t address_space_now() {
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    unsigned long long pages = 0;
    if (statm != nullptr) {
        if (std::fscanf(statm, "%llu", &pages) != 1) pages = 0;
        std::fclose(statm);
    }
    return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

void cap_memory(std::uint64_t file_size) {
    const std::uint64_t now = address_space_now();
    if (now == 0) _exit(3);
    const rlimit limit{now + decoder_memory_budget(file_size), now + decoder_memory_budget(file_size)};
    if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(3);
}

}  // namespace
}  // namespace krf::tools::formats

int main(int argc, char** argv) {
    using namespace krf::tools::formats;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE (started by krfilter for each DICOM file it reads)\n", argv[0]);
        return 2;
    }
    // Nothing of the parent's but the three standard streams; the toolkit's
    // and its codecs' complaints go nowhere, since the tool reports the
    // file's problem in one line of its own.
    close_range(3, ~0u, 0);
    report_fd = dup(STDOUT_FILENO);
    const int null_device = open("/dev/null", O_WRONLY);
    if (report_fd < 0 || null_device < 0 || dup2(null_device, STDOUT_FILENO) < 0 ||
        dup2(null_device, STDERR_FILENO) < 0)
        return 3;
    close(null_device);
    quiet_toolkit();

    struct stat info {};
    const std::string path = argv[1];
    const std::uint64_t file_size = stat(path.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
    forbid_exec();
    cap_memory(file_size);

    Decoded image;
    std::string problem;
    try {
        problem = decode(path, image);
    } catch (const std::bad_alloc&) {
        problem = "DICOM file needs more memory than its decoder may use";
    } catch (const std::exception& e) {
        problem = std::string("corrupt or unsupported DICOM file (") + e.what() + ")";
    }
    // No destructors, no exit handlers: the report is out, and the process's
    // end frees everything at once.
    _exit(write_report(problem, image) ? 0 : 1);
}
