#include "platform/codingdata/CodePages.h"

#include <glib.h>
#include <strings.h>

#include <cstring>
#include <mutex>

namespace codingdata {

namespace {

const CodePage kCodePages[] = {
    {"UTF-8", Kind::Utf8, 0},          {"WINDOWS-1252", Kind::Single, 1},
    {"WINDOWS-1251", Kind::Single, 2}, {"KOI8-R", Kind::Single, 3},
    {"KOI8-U", Kind::Single, 3},       {"ISO-8859-5", Kind::Single, 4},
    {"WINDOWS-1250", Kind::Single, 5}, {"ISO-8859-2", Kind::Single, 5},
    {"WINDOWS-1253", Kind::Single, 6}, {"ISO-8859-7", Kind::Single, 6},
    {"WINDOWS-1254", Kind::Single, 7}, {"ISO-8859-9", Kind::Single, 7},
    {"WINDOWS-1255", Kind::Single, 8}, {"ISO-8859-8", Kind::Single, 8},
    {"WINDOWS-1256", Kind::Single, 9}, {"WINDOWS-1257", Kind::Single, 10},
    {"ISO-8859-13", Kind::Single, 10}, {"WINDOWS-1258", Kind::Single, 11},
    {"CP874", Kind::Single, 12},       {"CP932", Kind::Sjis, 13},
    {"GB18030", Kind::Gbk, 15},        {"CP950", Kind::Big5, 16},
    {"CP949", Kind::Uhc, 17},          {"EUC-JP", Kind::EucJp, 14},
};
const int kCount = int(sizeof(kCodePages) / sizeof(kCodePages[0]));

// Other names the detectors and hosts use for the code pages of the table.
const struct {
    const char* alias;
    const char* name;
} kAliases[] = {
    {"UTF8", "UTF-8"},
    {"ISO-8859-1", "WINDOWS-1252"},
    {"LATIN1", "WINDOWS-1252"},
    {"ASCII", "WINDOWS-1252"},
    {"US-ASCII", "WINDOWS-1252"},
    {"CP1252", "WINDOWS-1252"},
    {"CP1251", "WINDOWS-1251"},
    {"CP1250", "WINDOWS-1250"},
    {"CP1253", "WINDOWS-1253"},
    {"CP1254", "WINDOWS-1254"},
    {"CP1255", "WINDOWS-1255"},
    {"CP1256", "WINDOWS-1256"},
    {"CP1257", "WINDOWS-1257"},
    {"CP1258", "WINDOWS-1258"},
    {"ISO-8859-8-I", "ISO-8859-8"},
    {"TIS-620", "CP874"},
    {"TIS620", "CP874"},
    {"ISO-8859-11", "CP874"},
    {"WINDOWS-874", "CP874"},
    {"SHIFT_JIS", "CP932"},
    {"SHIFT-JIS", "CP932"},
    {"SJIS", "CP932"},
    {"WINDOWS-31J", "CP932"},
    {"EUCJP", "EUC-JP"},
    {"GBK", "GB18030"},
    {"GB2312", "GB18030"},
    {"CP936", "GB18030"},
    {"EUC-CN", "GB18030"},
    {"BIG5", "CP950"},
    {"BIG-5", "CP950"},
    {"EUC-KR", "CP949"},
    {"UHC", "CP949"},
};

std::mutex gPriorityMutex;
std::shared_ptr<const Priority> gPriority;  // null: the default order

std::shared_ptr<const Priority> defaultPriority() {
    static const std::shared_ptr<const Priority> list = [] {
        auto p = std::make_shared<Priority>();
        for (int i = 0; i < kCount; ++i)
            p->order.push_back(i);
        return p;
    }();
    return list;
}

// A single-byte code page's characters in UTF-8, made once with iconv and
// shared by every thread: reading a text costs a lookup per byte, and no
// thread keeps a converter of its own (each holds a 32 KiB buffer).
// A page whose converter holds a letter back to compose it with the next
// byte (Vietnamese's WINDOWS-1258) has no such table and keeps converters.
struct ByteTable {
    bool composes = false;
    char utf8[256][4];
    unsigned char size[256];  // 0: the byte is not a character of the page
};

const ByteTable* byteTable(int index) {
    static std::once_flag made[kCount];
    static ByteTable tables[kCount];
    std::call_once(made[index], [index] {
        ByteTable& t = tables[index];
        GIConv cd = g_iconv_open("UTF-8", kCodePages[index].name);
        for (int b = 0; b < 256; ++b) {
            char in = char(b);
            gchar *from = &in, *to = t.utf8[b];
            gsize left = 1, room = sizeof t.utf8[b];
            t.size[b] = 0;
            if (cd != GIConv(-1) && g_iconv(cd, &from, &left, &to, &room) != gsize(-1) && !left)
                t.size[b] = (unsigned char)(to - t.utf8[b]);
            t.composes = t.composes || (!left && !t.size[b]);
            if (cd != GIConv(-1))
                g_iconv(cd, nullptr, nullptr, nullptr, nullptr);
        }
        if (cd != GIConv(-1))
            g_iconv_close(cd);
    });
    return &tables[index];
}

// One converter to UTF-8 per multi-byte code page and thread.
class Converters {
public:
    Converters() {
        for (GIConv& cd : cd_)
            cd = GIConv(-1);
    }
    ~Converters() {
        for (GIConv cd : cd_)
            if (cd != GIConv(-1))
                g_iconv_close(cd);
    }
    Converters(const Converters&) = delete;
    Converters& operator=(const Converters&) = delete;

    // The converter in its initial state; (GIConv)-1 when iconv lacks it.
    GIConv get(int index) {
        if (cd_[index] == GIConv(-1))
            cd_[index] = g_iconv_open("UTF-8", kCodePages[index].name);
        else
            g_iconv(cd_[index], nullptr, nullptr, nullptr, nullptr);
        return cd_[index];
    }

private:
    GIConv cd_[kCount];
};

}  // namespace

const CodePage* codePages() {
    return kCodePages;
}

int codePageCount() {
    return kCount;
}

int codePageIndex(const char* name) {
    if (!name || !*name)
        return -1;
    for (const auto& a : kAliases)
        if (strcasecmp(name, a.alias) == 0)
            name = a.name;
    for (int i = 0; i < kCount; ++i)
        if (strcasecmp(name, kCodePages[i].name) == 0)
            return i;
    return -1;
}

std::shared_ptr<const Priority> currentPriority() {
    std::lock_guard<std::mutex> lock(gPriorityMutex);
    return gPriority ? gPriority : defaultPriority();
}

bool setPriority(const char* list) {
    auto p = std::make_shared<Priority>();
    p->order.push_back(kUtf8);
    std::vector<bool> listed(kCount, false);
    listed[kUtf8] = true;
    gchar** names = g_strsplit_set(list ? list : "", ", \t", -1);
    bool known = true;
    for (gchar** n = names; *n; ++n) {
        if (!**n)
            continue;
        int index = codePageIndex(*n);
        if (index < 0)
            known = false;
        else if (!listed[index])
            p->order.push_back(index);
        if (index >= 0)
            listed[index] = true;
    }
    g_strfreev(names);
    if (!known)
        return false;
    p->market = p->order.size() - 1;
    for (int i : defaultPriority()->order)
        if (!listed[i])
            p->order.push_back(i);
    std::lock_guard<std::mutex> lock(gPriorityMutex);
    gPriority = p->market == 0 ? nullptr : std::shared_ptr<const Priority>(p);
    return true;
}

bool decode(const std::string& bytes, int index, std::string& out, int* cut) {
    if (cut)
        *cut = 0;
    const CodePage& page = kCodePages[index];
    if (page.kind == Kind::Utf8) {
        const char* end = nullptr;
        if (g_utf8_validate(bytes.data(), gssize(bytes.size()), &end)) {
            out = bytes;
            return true;
        }
        // A character cut at the end, as fixed-size fields cut them.
        const size_t valid = size_t(end - bytes.data());
        if (bytes.size() - valid >= 4 ||
            g_utf8_get_char_validated(end, gssize(bytes.size() - valid)) != gunichar(-2))
            return false;
        out.assign(bytes, 0, valid);
        if (cut)
            *cut = 1;
        return true;
    }
    const ByteTable* table = page.kind == Kind::Single ? byteTable(index) : nullptr;
    if (table && !table->composes) {
        out.clear();
        for (unsigned char b : bytes) {
            if (!table->size[b])
                return false;
            out.append(table->utf8[b], table->size[b]);
        }
        return out.find('\0') == std::string::npos;
    }
    thread_local Converters converters;
    GIConv cd = converters.get(index);
    if (cd == GIConv(-1))
        return false;
    gsize read = 0, written = 0;
    gchar* text =
        g_convert_with_iconv(bytes.data(), gssize(bytes.size()), cd, &read, &written, nullptr);
    if (!text)
        return false;
    if (read < bytes.size()) {
        // Only a multi-byte character cut at the end, as fixed-size fields
        // cut them, is left unread without an error.
        if (page.kind == Kind::Single || bytes.size() - read >= 4) {
            g_free(text);
            return false;
        }
        if (cut)
            *cut = 1;
    }
    out.assign(text, written);
    g_free(text);
    return g_utf8_validate(out.data(), gssize(out.size()), nullptr) &&
           out.find('\0') == std::string::npos;
}

}  // namespace codingdata
