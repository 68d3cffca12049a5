// DICOM files: the real compressed radiographs decode to the same samples as
// their PNG copies, a derived file keeps the input's identity but not its
// instance, and unsuitable files are refused in one line. Test files are made
// with the toolkit's own writer, independently of the code under test.
#include <gdcmAttribute.h>
#include <gdcmImageWriter.h>
#include <gdcmReader.h>
#include <gdcmTrace.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <tuple>

#include "file_test_folder.h"
#include "image_formats.h"
#include "image_io.h"
#include "phantom.h"

namespace krf::tools {
namespace {

namespace fs = std::filesystem;

class DicomFiles : public FileTestFolder {
protected:
    void SetUp() override {
        gdcm::Trace::WarningOff();  // about attributes the toolkit fills in for our test files
        FileTestFolder::SetUp();
    }
};

std::string data_file(const char* name) { return std::string(KRFILTER_DATA_DIR) + "/" + name; }

std::string text(const gdcm::DataSet& dataset, std::uint16_t group, std::uint16_t element) {
    const gdcm::Tag tag(group, element);
    if (!dataset.FindDataElement(tag) || dataset.GetDataElement(tag).GetByteValue() == nullptr) return {};
    const gdcm::ByteValue* value = dataset.GetDataElement(tag).GetByteValue();
    std::string s(value->GetPointer(), value->GetLength());
    while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
    return s;
}

// A small image written by the toolkit: `frames` frames of `samples` samples
// per pixel, `stored` of `allocated` bits.
void write_test_dicom(const std::string& file, unsigned frames, unsigned short samples, unsigned short allocated,
                      unsigned short stored) {
    gdcm::ImageWriter writer;
    gdcm::Image& image = writer.GetImage();
    image.SetNumberOfDimensions(frames > 1 ? 3 : 2);
    image.SetDimension(0, 6);
    image.SetDimension(1, 4);
    if (frames > 1) image.SetDimension(2, frames);
    gdcm::PixelFormat format(samples, allocated, stored, static_cast<unsigned short>(stored - 1), 0);
    image.SetPixelFormat(format);
    image.SetPhotometricInterpretation(samples == 3 ? gdcm::PhotometricInterpretation::RGB
                                                    : gdcm::PhotometricInterpretation::MONOCHROME2);
    image.SetTransferSyntax(gdcm::TransferSyntax::ExplicitVRLittleEndian);
    std::vector<char> pixels(6u * 4u * frames * samples * (allocated / 8u), 1);
    gdcm::DataElement data(gdcm::Tag(0x7fe0, 0x0010));
    data.SetByteValue(pixels.data(), static_cast<std::uint32_t>(pixels.size()));
    image.SetDataElement(data);
    writer.SetFileName(file.c_str());
    ASSERT_TRUE(writer.Write());
}

TEST_F(DicomFiles, RealRadiographsDecodeToTheSamplesOfTheirPngCopies) {
    const std::tuple<const char*, const char*, int> files[] = {{"RG3_J2KR.dcm", "cr-leg-10bit.png", 1023},
                                                                {"RG1_J2KI.dcm", "cr-15bit.png", 32767}};
    for (const auto& [dicom, png, white] : files) {
        SCOPED_TRACE(dicom);
        if (!fs::exists(data_file(dicom))) GTEST_SKIP() << data_file(dicom) << " is not available";
        GreyImage from_dicom, from_png;
        WhiteSource source{}, png_source{};
        ASSERT_EQ(read_grey_image(data_file(dicom), from_dicom, &source), "");
        ASSERT_EQ(read_grey_image(data_file(png), from_png, &png_source), "");  // a PNG without sBIT
        EXPECT_EQ(std::tie(from_dicom.height, from_dicom.width, from_dicom.white, source, png_source),
                  std::make_tuple(from_png.height, from_png.width, white, WhiteSource::dicom_bits_stored,
                                  WhiteSource::bit_depth));
        EXPECT_EQ(from_dicom.photometric, Photometric::monochrome1);
        EXPECT_NE(from_dicom.notes.find("MONOCHROME1"), std::string::npos);
        EXPECT_TRUE(from_dicom.samples == from_png.samples);
    }
}

TEST_F(DicomFiles, DerivedFileKeepsPatientStudyAndSeriesAndItsSamples) {
    if (!fs::exists(data_file("RG3_J2KR.dcm"))) GTEST_SKIP() << "the real radiographs are not available";
    GreyImage image;
    ASSERT_EQ(read_grey_image(data_file("RG3_J2KR.dcm"), image), "");
    for (std::uint16_t& v : image.samples) v = static_cast<std::uint16_t>(1023 - v);
    image.derivation = "krfilter reverse";
    ASSERT_EQ(write_grey_image(path("derived.dcm"), image), "");

    GreyImage again;
    ASSERT_EQ(read_grey_image(path("derived.dcm"), again), "");
    EXPECT_TRUE(again.samples == image.samples);
    EXPECT_EQ(std::tie(again.white, again.bit_depth, again.photometric),
              std::make_tuple(1023, 16, Photometric::monochrome1));

    gdcm::Reader original, derived;
    original.SetFileName(data_file("RG3_J2KR.dcm").c_str());
    derived.SetFileName(path("derived.dcm").c_str());
    ASSERT_TRUE(original.Read() && derived.Read());
    const gdcm::DataSet& a = original.GetFile().GetDataSet();
    const gdcm::DataSet& b = derived.GetFile().GetDataSet();
    for (const auto& [group, element] : {std::pair{0x0010, 0x0010}, {0x0010, 0x0020}, {0x0020, 0x000d},
                                         {0x0020, 0x000e}, {0x0008, 0x0060}})
        EXPECT_EQ(text(a, group, element), text(b, group, element)) << std::hex << group << "," << element;
    EXPECT_NE(text(a, 0x0008, 0x0018), text(b, 0x0008, 0x0018));
    EXPECT_EQ(text(b, 0x0008, 0x0008).rfind("DERIVED", 0), 0u);
    EXPECT_EQ(text(b, 0x0008, 0x2111), "krfilter reverse");
    EXPECT_EQ(derived.GetFile().GetHeader().GetDataSetTransferSyntax(), gdcm::TransferSyntax::ExplicitVRLittleEndian);
}

TEST_F(DicomFiles, PngBecomesASecondaryCaptureOfItsOwn) {
    for (const int bit_depth : {8, 16}) {
        const int white = bit_depth == 8 ? 255 : 4095;
        GreyImage image{9, 14, bit_depth, white, std::vector<std::uint16_t>(9 * 14)};
        synthesize_phantom(image.samples.data(), 9, 14, white, 3);
        ASSERT_EQ(write_grey_image(path("new.dcm"), image), "");
        GreyImage again;
        WhiteSource source{};
        ASSERT_EQ(read_grey_image(path("new.dcm"), again, &source), "");
        EXPECT_TRUE(again.samples == image.samples) << bit_depth;
        EXPECT_EQ(std::tie(again.white, again.bit_depth, again.photometric, source),
                  std::make_tuple(white, bit_depth, Photometric::monochrome2, WhiteSource::dicom_bits_stored));
        gdcm::Reader reader;
        reader.SetFileName(path("new.dcm").c_str());
        ASSERT_TRUE(reader.Read());
        EXPECT_EQ(text(reader.GetFile().GetDataSet(), 0x0008, 0x0016), "1.2.840.10008.5.1.4.1.1.7");
        EXPECT_FALSE(text(reader.GetFile().GetDataSet(), 0x0020, 0x000d).empty());
    }
}

// Unsuitable files made by the toolkit: each is refused in one line, saying
// why, with an empty image. Cut files are the damaged-files test's.
TEST_F(DicomFiles, UnsuitableFilesAreRefusedInOneLine) {
    write_test_dicom(path("frames.dcm"), 2, 1, 16, 12);
    write_test_dicom(path("colour.dcm"), 1, 3, 8, 8);
    write_test_dicom(path("sound.dcm"), 1, 1, 16, 12);
    std::ifstream sound(path("sound.dcm"), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(sound), std::istreambuf_iterator<char>()};
    // BitsStored (0028,0101) forged to 20, which the toolkit would not write; and the pixel data (7FE0,0010),
    // the last element, cut away.
    const std::size_t bits = bytes.find(std::string("\x28\x00\x01\x01US\x02\x00", 8));
    const std::size_t pixels = bytes.rfind(std::string("\xe0\x7f\x10\x00", 4));
    ASSERT_TRUE(bits != std::string::npos && pixels != std::string::npos);
    std::ofstream(path("bits.dcm"), std::ios::binary) << bytes.substr(0, bits + 8) << '\x14' << bytes.substr(bits + 9);
    std::ofstream(path("empty.dcm"), std::ios::binary) << bytes.substr(0, pixels);
    const std::pair<const char*, const char*> cases[] = {{"frames.dcm", "multi-frame"},
                                                         {"colour.dcm", "not a greyscale image"},
                                                         {"empty.dcm", "without pixel data"},
                                                         {"bits.dcm", "BitsStored"}};
    for (const auto& [name, words] : cases) {
        GreyImage image;
        const std::string problem = read_grey_image(path(name), image);
        EXPECT_NE(problem, "") << name << " was accepted";
        EXPECT_NE(problem.find(words), std::string::npos) << name << ": " << problem;
        EXPECT_EQ(problem.find('\n'), std::string::npos) << name;
        EXPECT_TRUE(image.samples.empty()) << name;
    }
}

// Stand-ins for the decoder, as shell scripts: the tool's side must stop and
// clear away a decoder that hangs (with whatever it started), floods its
// output or dies (with its temporary files), and refuse the file in one line
// each time.
TEST_F(DicomFiles, DecoderThatHangsFloodsOrDiesIsStoppedAndTheFileRefused) {
    const std::string stray = path("stray.pid");
    const std::pair<const char*, std::string> decoders[] = {
        {"stopped after 1 s", "sleep 60 & echo $! > " + stray + "\nwait\n"},
        {"outgrew", "exec cat /dev/zero\n"},
        {"the decoder stopped on it", "echo $TMPDIR > " + path("tmpdir") + "\necho x > $TMPDIR/left\nkill -SEGV $$\n"},
        {"short report", "printf O1234\n"},
    };
    std::ofstream(path("input.dcm")) << "not read by the stand-ins";
    for (const auto& [words, script] : decoders) {
        const std::string decoder = path("decoder.sh");
        std::ofstream(decoder) << "#!/bin/sh\n" << script;
        fs::permissions(decoder, fs::perms::owner_all);
        GreyImage image;
        image.samples.assign(3, 7);
        const auto started = std::chrono::steady_clock::now();
        const std::string problem = formats::run_dicom_decoder(decoder, path("input.dcm"), 1, 1 << 20, image);
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5)) << words;
        EXPECT_NE(problem.find(words), std::string::npos) << problem;
        EXPECT_EQ(problem.find('\n'), std::string::npos) << problem;
        EXPECT_TRUE(image.samples.empty()) << words;
    }
    // The dead decoder's temporary file went with the folder it was given.
    std::string folder;
    ASSERT_TRUE(std::ifstream(path("tmpdir")) >> folder);
    EXPECT_NE(folder.find("krfilter-decoder-"), std::string::npos) << folder;
    EXPECT_FALSE(fs::exists(folder)) << folder;
    // The hanging decoder's background process went with it (a process that
    // has ended but is not yet collected by its new parent counts as gone).
    int pid = 0;
    ASSERT_TRUE(std::ifstream(stray) >> pid);
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string pid_field, name, state;
    if (stat >> pid_field >> name >> state) EXPECT_EQ(state, "Z") << "the decoder's background process still runs";
}

}  // namespace
}  // namespace krf::tools
