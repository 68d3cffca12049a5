// DICOM through GDCM, which decodes the compressed transfer syntaxes that
// computed-radiography files use (JPEG 2000, JPEG-LS, lossless JPEG, RLE).
// In: single-frame, one-sample greyscale (MONOCHROME1 or MONOCHROME2),
// unsigned 8- or 16-bit, decoded by a process of its own (dicom_decoder.cpp).
// Out: a derived image, uncompressed, that keeps the input's attributes.
#include <gdcmDataSet.h>
#include <gdcmExplicitDataElement.h>
#include <gdcmImage.h>
#include <gdcmImageWriter.h>
#include <gdcmSwapper.h>
#include <gdcmUIDGenerator.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <vector>

#include "dicom_decoding.h"

extern char** environ;

namespace krf::tools {

struct DicomAttributes {
    gdcm::DataSet dataset;  // the input's data set without its pixel data
};

namespace formats {

namespace {

const gdcm::Tag kPixelData(0x7fe0, 0x0010);

// Even-length text value, as DICOM requires (padded with a blank; UIDs with NUL).
void set_text(gdcm::DataSet& dataset, const gdcm::Tag& tag, gdcm::VR vr, std::string text) {
    if (text.size() % 2 != 0) text.push_back(vr == gdcm::VR::UI ? '\0' : ' ');
    gdcm::DataElement element(tag);
    element.SetVR(vr);
    element.SetByteValue(text.data(), static_cast<std::uint32_t>(text.size()));
    dataset.Replace(element);
}

std::string new_uid() {
    gdcm::UIDGenerator generator;
    return generator.Generate();
}

}  // namespace

bool looks_like_dicom(FILE* file) {
    char magic[4] = {};
    return std::fseek(file, 128, SEEK_SET) == 0 && std::fread(magic, 1, 4, file) == 4 &&
           std::memcmp(magic, "DICM", 4) == 0;
}

namespace {

class ReportReader {
public:
    explicit ReportReader(const std::string& bytes) : bytes_(bytes) {}
    bool get_int(std::int64_t& v) { return get_bytes(&v, sizeof v); }
    bool get_text(std::string& text) {
        std::int64_t size = 0;
        if (!get_int(size) || size < 0 || static_cast<std::uint64_t>(size) > bytes_.size() - at_) return false;
        text.assign(bytes_, at_, static_cast<std::size_t>(size));
        at_ += static_cast<std::size_t>(size);
        return true;
    }
    bool get_bytes(void* data, std::size_t size) {
        if (size > bytes_.size() - at_) return false;
        std::memcpy(data, bytes_.data() + at_, size);
        at_ += size;
        return true;
    }
    bool at_end() const { return at_ == bytes_.size(); }

private:
    const std::string& bytes_;
    std::size_t at_ = 1;  // past the outcome byte
};

std::string decode_report(const std::string& report, GreyImage& image) {
    if (report.empty()) return "corrupt or unsupported DICOM file (the decoder stopped on it)";
    if (report[0] == 'E') return report.substr(1);
    ReportReader in(report);
    std::int64_t v[5] = {};
    for (std::int64_t& value : v)
        if (!in.get_int(value)) return "internal error: short report from the DICOM decoder";
    if (!size_acceptable(static_cast<std::uint64_t>(v[0]), static_cast<std::uint64_t>(v[1])))
        return size_problem(static_cast<std::uint64_t>(v[0]), static_cast<std::uint64_t>(v[1]));
    if ((v[2] != 8 && v[2] != 16) || v[3] < 1 || v[3] > 65535)
        return "internal error: DICOM decoder reports bit depth " + std::to_string(v[2]) + ", white " +
               std::to_string(v[3]);
    image.height = static_cast<int>(v[0]);
    image.width = static_cast<int>(v[1]);
    image.bit_depth = static_cast<int>(v[2]);
    image.white = static_cast<int>(v[3]);
    image.photometric = v[4] == 1 ? Photometric::monochrome1 : Photometric::monochrome2;
    std::string dataset_bytes;
    if (!in.get_text(image.notes) || !in.get_text(dataset_bytes))
        return "internal error: short report from the DICOM decoder";
    image.samples.resize(static_cast<std::size_t>(image.height) * static_cast<std::size_t>(image.width));
    if (!in.get_bytes(image.samples.data(), image.samples.size() * sizeof(std::uint16_t)) || !in.at_end())
        return "internal error: short report from the DICOM decoder";
    auto attributes = std::make_shared<DicomAttributes>();
    std::istringstream dataset(dataset_bytes);
    attributes->dataset.Read<gdcm::ExplicitDataElement, gdcm::SwapperNoOp>(dataset);
    image.dicom = std::move(attributes);
    return {};
}

// The decoder installed with the tool, or built beside it in the build tree
// (where the tests and benchmarks run one folder below the tool).
std::string find_decoder(std::string& decoder) {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) return system_error("cannot find the DICOM decoder (the running program's location)");
    const std::string program(self, static_cast<std::size_t>(length));
    const std::string folder = program.substr(0, program.rfind('/') + 1);
    for (const char* relative : {KRFILTER_DECODER_FROM_BINDIR, "../libexec/krfilter", "libexec/krfilter"}) {
        decoder = folder + relative + "/" + kDicomDecoderName;
        if (access(decoder.c_str(), X_OK) == 0) return {};
    }
    decoder = folder + KRFILTER_DECODER_FROM_BINDIR + "/" + kDicomDecoderName;
    return "cannot find the DICOM decoder " + decoder;
}

// A folder of its own for the decoder's temporary files: on a lossless JPEG
// its codec rejects, the toolkit writes the data to a temporary file for an
// outside program and leaves it there when that program cannot be started.
// The folder goes, with whatever is in it, when the decoder has ended.
class DecoderFolder {
public:
    DecoderFolder() {
        const char* base = std::getenv("TMPDIR");
        std::string name = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/krfilter-decoder-XXXXXX";
        if (mkdtemp(name.data()) != nullptr) path_ = name;
    }
    DecoderFolder(const DecoderFolder&) = delete;
    DecoderFolder& operator=(const DecoderFolder&) = delete;
    ~DecoderFolder() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// Starts `decoder` on `path` in a process group of its own, with the report
// coming through a pipe that no other process started meanwhile (by another
// thread) inherits, and TMPDIR set to `temporary_folder`. Returns its process
// id, or -1 with errno set.
pid_t start_decoder(const std::string& decoder, const std::string& path, const std::string& temporary_folder,
                    int& report_fd) {
    int channel[2];
    if (pipe2(channel, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, channel[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    // A server may ignore SIGPIPE or block signals in its threads; the
    // decoder gets the default actions, so that it ends when nobody reads.
    sigset_t no_signals, defaults;
    sigemptyset(&no_signals);
    sigemptyset(&defaults);
    for (const int signal_number : {SIGPIPE, SIGINT, SIGTERM, SIGHUP}) sigaddset(&defaults, signal_number);
    posix_spawnattr_setsigmask(&attributes, &no_signals);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    char* const argv[] = {const_cast<char*>(decoder.c_str()), const_cast<char*>(path.c_str()), nullptr};
    // The environment as it is (sanitizer options travel with it), but for TMPDIR.
    std::string temporary = "TMPDIR=" + temporary_folder;
    std::vector<char*> environment;
    for (char** variable = environ; *variable != nullptr; ++variable)
        if (std::strncmp(*variable, "TMPDIR=", 7) != 0) environment.push_back(*variable);
    if (!temporary_folder.empty()) environment.push_back(temporary.data());
    environment.push_back(nullptr);
    pid_t child = -1;
    const int failure = posix_spawn(&child, decoder.c_str(), &actions, &attributes, argv, environment.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(channel[1]);
    if (failure != 0) {
        close(channel[0]);
        errno = failure;
        return -1;
    }
    report_fd = channel[0];
    return child;
}

enum class Ending { complete, too_slow, too_long };

// Collects everything the decoder writes until it closes its output, the
// time is up or the report grows past `max_bytes`.
Ending collect_report(int fd, int seconds, std::uint64_t max_bytes, std::string& report) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::vector<char> chunk(1 << 16);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                                std::chrono::steady_clock::now());
        if (left.count() <= 0) return Ending::too_slow;
        pollfd wait_for{fd, POLLIN, 0};
        const int ready = poll(&wait_for, 1, static_cast<int>(std::min<std::int64_t>(left.count(), INT_MAX)));
        if (ready < 0 && errno != EINTR) return Ending::complete;  // cannot happen with a valid descriptor
        if (ready <= 0) continue;
        const ssize_t n = read(fd, chunk.data(), chunk.size());
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) return Ending::complete;
        if (report.size() + static_cast<std::size_t>(n) > max_bytes) return Ending::too_long;
        report.append(chunk.data(), static_cast<std::size_t>(n));
    }
}

}  // namespace

std::string run_dicom_decoder(const std::string& decoder, const std::string& path, int seconds,
                              std::uint64_t max_report_bytes, GreyImage& image) {
    const DecoderFolder temporary_folder;
    int report_fd = -1;
    const pid_t child = start_decoder(decoder, path, temporary_folder.path(), report_fd);
    if (child < 0) return system_error(("cannot start the DICOM decoder " + decoder).c_str());
    std::string report;
    const Ending ending = collect_report(report_fd, seconds, max_report_bytes, report);
    close(report_fd);
    // The whole group: whatever the decoder started goes with it. After a
    // complete report this only meets a process that has already ended.
    kill(-child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) report.clear();
    const std::string problem =
        ending == Ending::too_slow ? "DICOM decoding stopped after " + std::to_string(seconds) +
                                         " s (a damaged or forged file)"
        : ending == Ending::too_long ? "DICOM decoder stopped: its output outgrew any image of this file's size"
                                     : decode_report(report, image);
    if (!problem.empty()) image = GreyImage{};
    return problem;
}

std::string read_dicom(const std::string& path, GreyImage& image, WhiteSource& source) {
    std::string decoder;
    const std::string missing = find_decoder(decoder);
    if (!missing.empty()) return missing;
    struct stat info {};
    const std::uint64_t file_size = stat(path.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
    const std::string problem =
        run_dicom_decoder(decoder, path, decoder_seconds(file_size), max_report_bytes(file_size), image);
    if (problem.empty()) source = WhiteSource::dicom_bits_stored;
    return problem;
}

std::string write_dicom(const std::string& temp_path, const GreyImage& image) {
    quiet_toolkit();
    gdcm::ImageWriter writer;
    gdcm::DataSet& dataset = writer.GetFile().GetDataSet();
    if (image.dicom) dataset = image.dicom->dataset;

    gdcm::Image& out = writer.GetImage();
    out.SetNumberOfDimensions(2);
    out.SetDimension(0, static_cast<unsigned>(image.width));
    out.SetDimension(1, static_cast<unsigned>(image.height));
    gdcm::PixelFormat format(image.bit_depth == 8 ? gdcm::PixelFormat::UINT8 : gdcm::PixelFormat::UINT16);
    const int stored = significant_bits(image.white, image.bit_depth);
    format.SetBitsStored(static_cast<unsigned short>(stored));
    format.SetHighBit(static_cast<unsigned short>(stored - 1));
    out.SetPixelFormat(format);
    out.SetPhotometricInterpretation(image.photometric == Photometric::monochrome1
                                         ? gdcm::PhotometricInterpretation::MONOCHROME1
                                         : gdcm::PhotometricInterpretation::MONOCHROME2);
    out.SetTransferSyntax(gdcm::TransferSyntax::ExplicitVRLittleEndian);

    // Samples above what BitsStored can hold are clamped, like an 8-bit PNG.
    const auto top = static_cast<std::uint16_t>((1u << stored) - 1);
    std::vector<char> pixels(image.samples.size() * static_cast<std::size_t>(image.bit_depth / 8));
    for (std::size_t i = 0; i < image.samples.size(); ++i) {
        const std::uint16_t v = std::min(image.samples[i], top);
        if (image.bit_depth == 8) pixels[i] = static_cast<char>(v);
        else std::memcpy(pixels.data() + 2 * i, &v, 2);
    }
    gdcm::DataElement pixel_data(kPixelData);
    pixel_data.SetVR(image.bit_depth == 8 ? gdcm::VR::OB : gdcm::VR::OW);
    pixel_data.SetByteValue(pixels.data(), static_cast<std::uint32_t>(pixels.size()));
    out.SetDataElement(pixel_data);

    if (!image.dicom) {
        // A new image of its own: secondary capture in a new study and series.
        set_text(dataset, gdcm::Tag(0x0008, 0x0016), gdcm::VR::UI, "1.2.840.10008.5.1.4.1.1.7");
        set_text(dataset, gdcm::Tag(0x0020, 0x000d), gdcm::VR::UI, new_uid());
        set_text(dataset, gdcm::Tag(0x0020, 0x000e), gdcm::VR::UI, new_uid());
        set_text(dataset, gdcm::Tag(0x0008, 0x0060), gdcm::VR::CS, "OT");
        set_text(dataset, gdcm::Tag(0x0010, 0x0010), gdcm::VR::PN, "");
        set_text(dataset, gdcm::Tag(0x0010, 0x0020), gdcm::VR::LO, "");
    }
    set_text(dataset, gdcm::Tag(0x0008, 0x0018), gdcm::VR::UI, new_uid());
    set_text(dataset, gdcm::Tag(0x0008, 0x0008), gdcm::VR::CS, "DERIVED\\SECONDARY");
    // DerivationDescription is Short Text: 1024 characters at most.
    set_text(dataset, gdcm::Tag(0x0008, 0x2111), gdcm::VR::ST,
             (image.derivation.empty() ? std::string("krfilter") : image.derivation).substr(0, 1024));

    writer.SetFileName(temp_path.c_str());
    if (!writer.Write()) return "DICOM encoder: cannot write the file";
    return {};
}

}  // namespace formats
}  // namespace krf::tools
