// DICOM through GDCM, which decodes the compressed transfer syntaxes that
// computed-radiography files use (JPEG 2000, JPEG-LS, lossless JPEG, RLE).
// In: single-frame, one-sample greyscale (MONOCHROME1 or MONOCHROME2),
// unsigned 8- or 16-bit. Out: a derived image, uncompressed, that keeps the
// input's attributes.
#include <gdcmDataSet.h>
#include <gdcmImage.h>
#include <gdcmImageReader.h>
#include <gdcmImageWriter.h>
#include <gdcmUIDGenerator.h>

#include <gdcmExplicitDataElement.h>
#include <gdcmSwapper.h>
#include <gdcmTrace.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "image_formats.h"

namespace krf::tools {

struct DicomAttributes {
    gdcm::DataSet dataset;  // the input's data set without its pixel data
};

namespace formats {

namespace {

const gdcm::Tag kPixelData(0x7fe0, 0x0010);
const gdcm::Tag kNumberOfFrames(0x0028, 0x0008);
const gdcm::Tag kRescaleSlope(0x0028, 0x1053);
const gdcm::Tag kRescaleIntercept(0x0028, 0x1052);

// Even-length text value, as DICOM requires (padded with a blank; UIDs with NUL).
void set_text(gdcm::DataSet& dataset, const gdcm::Tag& tag, gdcm::VR vr, std::string text) {
    if (text.size() % 2 != 0) text.push_back(vr == gdcm::VR::UI ? '\0' : ' ');
    gdcm::DataElement element(tag);
    element.SetVR(vr);
    element.SetByteValue(text.data(), static_cast<std::uint32_t>(text.size()));
    dataset.Replace(element);
}

std::string text_of(const gdcm::DataSet& dataset, const gdcm::Tag& tag) {
    if (!dataset.FindDataElement(tag)) return {};
    const gdcm::ByteValue* value = dataset.GetDataElement(tag).GetByteValue();
    if (value == nullptr) return {};
    std::string text(value->GetPointer(), value->GetLength());
    while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
    return text;
}

// The tool reports each problem in one line of its own; the toolkit's
// multi-line warnings (about attributes it fills in itself) would only
// clutter the output.
void quiet_toolkit() {
    gdcm::Trace::WarningOff();
    gdcm::Trace::ErrorOff();
    gdcm::Trace::DebugOff();
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

// The decoding proper, run in a child process by read_dicom.
std::string decode(const std::string& path, GreyImage& image, gdcm::DataSet& attributes) {
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
    // The buffer length above follows from the rows and columns alone; the
    // element itself must hold that many bytes, or the toolkit would hand out
    // samples the file does not have.
    if (!dicom.GetTransferSyntax().IsEncapsulated()) {
        const gdcm::ByteValue* stored = dataset.GetDataElement(kPixelData).GetByteValue();
        if (stored == nullptr || stored->GetLength() < bytes)
            return "DICOM pixel data shorter than its rows and columns need";
        if (ends_inside_pixel_data(path, stored->GetLength())) return "truncated DICOM file (the pixel data ends early)";
    }
    std::vector<char> buffer(bytes);
    if (!dicom.GetBuffer(buffer.data()))
        return std::string("cannot decode the DICOM pixel data (transfer syntax ") +
               dicom.GetTransferSyntax().GetString() + ")";

    image.height = static_cast<int>(dims[1]);
    image.width = static_cast<int>(dims[0]);
    image.bit_depth = allocated;
    image.white = static_cast<int>((1u << stored) - 1);
    image.samples.resize(count);
    // Bits above BitsStored are no part of the sample (old files keep
    // overlays there): they are dropped.
    const auto mask = static_cast<std::uint16_t>(image.white);
    if (allocated == 8) {
        for (std::size_t i = 0; i < count; ++i)
            image.samples[i] = static_cast<std::uint16_t>(static_cast<unsigned char>(buffer[i]) & mask);
    } else {
        std::memcpy(image.samples.data(), buffer.data(), bytes);  // GDCM gives host (little-endian) order
        for (std::uint16_t& v : image.samples) v &= mask;
    }
    const bool inverted = photometric == gdcm::PhotometricInterpretation::MONOCHROME1;
    image.photometric = inverted ? Photometric::monochrome1 : Photometric::monochrome2;
    image.notes = inverted ? "MONOCHROME1 (0 is white)" : "MONOCHROME2 (0 is black)";
    if (dataset.FindDataElement(kRescaleSlope) || dataset.FindDataElement(kRescaleIntercept))
        image.notes += "; rescale slope/intercept not applied, filters see the stored values";

    attributes = dataset;
    attributes.Remove(kPixelData);
    return {};
}

// ---- The child's report to its parent, through a pipe: one byte of outcome
// ('E' then the message, or 'O' then the image), all in host byte order. The
// attributes travel as an explicit-VR data set, which the parent reads back
// from bytes this code wrote, never from the untrusted file.

void put_bytes(std::string& out, const void* data, std::size_t size) {
    out.append(static_cast<const char*>(data), size);
}
void put_int(std::string& out, std::int64_t v) { put_bytes(out, &v, sizeof v); }
void put_text(std::string& out, const std::string& text) {
    put_int(out, static_cast<std::int64_t>(text.size()));
    out += text;
}

std::string encode_report(const std::string& problem, const GreyImage& image, const gdcm::DataSet& attributes) {
    if (!problem.empty()) return "E" + problem;
    std::string out = "O";
    for (const int v : {image.height, image.width, image.bit_depth, image.white, static_cast<int>(image.photometric)})
        put_int(out, v);
    put_text(out, image.notes);
    std::ostringstream dataset;
    attributes.Write<gdcm::ExplicitDataElement, gdcm::SwapperNoOp>(dataset);
    put_text(out, dataset.str());
    put_bytes(out, image.samples.data(), image.samples.size() * sizeof(std::uint16_t));
    return out;
}

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

}  // namespace

// The toolkit stops the whole process (an assertion) on some damaged files,
// and a batch run must outlive any one file: the file is decoded in a child
// process, and a child that dies is a refused file.
std::string read_dicom(const std::string& path, GreyImage& image, WhiteSource& source) {
    int channel[2];
    if (pipe(channel) != 0) return system_error("cannot start the DICOM decoder");
    const pid_t child = fork();
    if (child < 0) {
        close(channel[0]);
        close(channel[1]);
        return system_error("cannot start the DICOM decoder");
    }
    if (child == 0) {
        close(channel[0]);
        quiet_toolkit();
        // The image decoders below the toolkit print their own complaints;
        // the parent reports the file's problem in one line.
        const int null_device = open("/dev/null", O_WRONLY);
        if (null_device >= 0) dup2(null_device, STDERR_FILENO);
        GreyImage decoded;
        gdcm::DataSet attributes;
        std::string report;
        try {
            const std::string problem = decode(path, decoded, attributes);
            report = encode_report(problem, decoded, attributes);
        } catch (const std::exception& e) {
            report = std::string("Ecorrupt or unsupported DICOM file (") + e.what() + ")";
        }
        std::size_t sent = 0;
        while (sent < report.size()) {
            const ssize_t n = write(channel[1], report.data() + sent, report.size() - sent);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) _exit(1);
            sent += static_cast<std::size_t>(n);
        }
        // No destructors, no exit handlers: the parent owns everything else.
        _exit(0);
    }
    close(channel[1]);
    std::string report;
    char chunk[1 << 16];
    for (;;) {
        const ssize_t n = read(channel[0], chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        report.append(chunk, static_cast<std::size_t>(n));
    }
    close(channel[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) report.clear();
    const std::string problem = decode_report(report, image);
    if (!problem.empty()) {
        image = GreyImage{};
        return problem;
    }
    source = WhiteSource::dicom_bits_stored;
    return {};
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
