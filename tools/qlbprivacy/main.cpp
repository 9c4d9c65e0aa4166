// qlbprivacy: writes and reads the product's enciphered privacy documents.
//
//   qlbprivacy pack IN.xml OUT.dat [--reproducible]   encipher a readable document
//   qlbprivacy unpack IN.dat                          print the plain text
//
// Exit status: 0 on success, 1 when the work failed (with a message on stderr), 2 on a usage error.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "consent/table_cipher.h"
#include "privacy_pack.h"
#include "runtime/common/strings.h"
#include "runtime/xml/zv_xml.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

int Usage() {
    std::cerr << "usage: qlbprivacy pack IN.xml OUT.dat [--reproducible]\n"
                 "       qlbprivacy unpack IN.dat\n";
    return kExitUsage;
}

bool ReadWholeFile(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    content = buffer.str();
    return !in.bad();
}

int Pack(const std::string& input, const std::string& output, bool reproducible) {
    std::string plain;
    if (!ReadWholeFile(input, plain)) {
        std::cerr << "qlbprivacy: cannot read " << input << "\n";
        return kExitFailed;
    }
    // A document the service cannot parse must not be shipped.
    ZvXMLDocument document;
    if (plain.empty() || document.Parse(plain) != 0 || document.IsDocumentNull()) {
        std::cerr << "qlbprivacy: " << input << " is not a well-formed XML document\n";
        return kExitFailed;
    }
    const auto packed = qlb::privacy::PackDocument(
        plain, reproducible ? qlb::privacy::HeaderMode::Derived : qlb::privacy::HeaderMode::Random);
    if (!packed) {
        std::cerr << "qlbprivacy: encryption failed\n";
        return kExitFailed;
    }
    // Written beside the target and renamed, so that a reader never sees half a document.
    const std::filesystem::path target(output);
    const std::filesystem::path temporary = target.string() + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(packed->data(), static_cast<std::streamsize>(packed->size()));
        if (!out.good()) {
            std::cerr << "qlbprivacy: cannot write " << output << "\n";
            std::error_code ignored;
            std::filesystem::remove(temporary, ignored);
            return kExitFailed;
        }
    }
    std::error_code ec;
    std::filesystem::rename(temporary, target, ec);
    if (ec) {
        std::cerr << "qlbprivacy: cannot write " << output << ": " << ec.message() << "\n";
        std::filesystem::remove(temporary, ec);
        return kExitFailed;
    }
    return kExitOk;
}

int Unpack(const std::string& input) {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(input, ec)) {
        std::cerr << "qlbprivacy: cannot read " << input << "\n";
        return kExitFailed;
    }
    const std::string plain = DecryXmlFile(DE::ANSIToUnicode(input));
    if (plain.empty()) {
        std::cerr << "qlbprivacy: " << input
                  << " is no privacy document of this product (too short, bad length, or bad padding)\n";
        return kExitFailed;
    }
    std::cout.write(plain.data(), static_cast<std::streamsize>(plain.size()));
    std::cout.flush();
    return std::cout.good() ? kExitOk : kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return Usage();
    }
    const std::string verb = argv[1];
    if (verb == "pack" && (argc == 4 || (argc == 5 && std::string(argv[4]) == "--reproducible"))) {
        return Pack(argv[2], argv[3], argc == 5);
    }
    if (verb == "unpack" && argc == 3) {
        return Unpack(argv[2]);
    }
    return Usage();
}
