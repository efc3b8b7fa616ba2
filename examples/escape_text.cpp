// Writes a text so that it can stand in a URL, in HTML or in an SQL literal; or reads one from a
// URL.
//   escape_text url|html|sql|from-url TEXT
#include <cstdio>
#include <cstring>
#include <string>

#include <KivFramework/KivFramework.h>

using namespace KivFramework;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s url|html|sql|from-url TEXT\n", argv[0]);
        return 2;
    }
    const std::string kind = KivStringHelper::ToLower(argv[1]);
    std::string text;
    if (kind == "url") {
        text = KivStringHelper::EncodeURL(argv[2]);
    } else if (kind == "html") {
        text = KivStringHelper::EncodeHTML(argv[2]);
    } else if (kind == "sql") {
        text = "'" + KivStringHelper::EncodeSQL(argv[2]) + "'";
    } else if (kind == "from-url") {
        // "+" is not turned back into a space; where it stands for one, it is replaced first.
        text = KivStringHelper::DecodeURL(KivStringHelper::Replace(argv[2], "+", " "));
    } else {
        std::fprintf(stderr, "unknown kind: %s\n", argv[1]);
        return 2;
    }
    std::printf("%s\n", text.c_str());
    return 0;
}
