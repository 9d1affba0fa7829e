// Reads the text in one picture with Tesseract, at low priority.
//
//   zuv-ocr --list        the installed languages, one per line ("eng", "jpn", …)
//   zuv-ocr LANGUAGES     the picture's bytes on standard input; its text, in
//                         reading order, on standard output. LANGUAGES is
//                         Tesseract's form: "eng+jpn", the first favoured.
//
// It ends with its parent, never competes with the person's work, and exits
// with status 1 and a line on standard error when it cannot read the picture.
#include <leptonica/allheaders.h>
#include <tesseract/baseapi.h>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace {

void stayOutOfTheWay()
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    // Low, but not idle: an idle-class process can starve for minutes on a busy
    // machine, and a picture is worth reading within its time. ZUV_OCR_NICE
    // changes it (the tests run it at 0 beside their own load).
    const char *nice = std::getenv("ZUV_OCR_NICE");
    setpriority(PRIO_PROCESS, 0, nice ? std::atoi(nice) : 10);
#if !defined(__SANITIZE_ADDRESS__)
    // A picture that would take more than this is not worth the machine.
    const rlim_t limit = rlim_t(3) << 30;
    rlimit memory{limit, limit};
    setrlimit(RLIMIT_AS, &memory);
#endif
}

} // namespace

int main(int argc, char **argv)
{
    stayOutOfTheWay();
    if (argc != 2) {
        std::fprintf(stderr, "usage: zuv-ocr --list | zuv-ocr LANGUAGES < picture\n");
        return 2;
    }
    const std::string arg = argv[1];
    tesseract::TessBaseAPI api;
    if (arg == "--list") {
        if (api.Init(nullptr, "eng", tesseract::OEM_LSTM_ONLY) != 0) {
            std::fprintf(stderr, "zuv-ocr: Tesseract has no English data\n");
            return 1;
        }
        std::vector<std::string> languages;
        api.GetAvailableLanguagesAsVector(&languages);
        for (const std::string &language : languages)
            if (language != "osd")
                std::printf("%s\n", language.c_str());
        return 0;
    }
    const std::string bytes((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    Pix *picture = pixReadMem(reinterpret_cast<const l_uint8 *>(bytes.data()), bytes.size());
    if (!picture) {
        std::fprintf(stderr, "zuv-ocr: the picture does not decode\n");
        return 1;
    }
    if (api.Init(nullptr, arg.c_str(), tesseract::OEM_LSTM_ONLY) != 0) {
        pixDestroy(&picture);
        std::fprintf(stderr, "zuv-ocr: no data for %s\n", arg.c_str());
        return 1;
    }
    api.SetImage(picture);
    char *text = api.GetUTF8Text();
    if (text)
        std::fputs(text, stdout);
    delete[] text;
    api.End();
    pixDestroy(&picture);
    return 0;
}
