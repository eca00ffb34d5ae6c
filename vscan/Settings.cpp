// vscan.ini: "Key = value" lines applied through the same switches as the control exports; values may be names.
#include "Settings.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "Control.h"

namespace vscan {

namespace {

struct Name {
    const char *name;
    long value;
};

#define VSCAN_NAME(code)                                                                                               \
    { #code, code }
const Name kNames[] = {
    VSCAN_NAME(DG_CONTROL),
    VSCAN_NAME(DG_IMAGE),
    VSCAN_NAME(DAT_CAPABILITY),
    VSCAN_NAME(DAT_EVENT),
    VSCAN_NAME(DAT_IDENTITY),
    VSCAN_NAME(DAT_PENDINGXFERS),
    VSCAN_NAME(DAT_SETUPMEMXFER),
    VSCAN_NAME(DAT_SETUPFILEXFER),
    VSCAN_NAME(DAT_STATUS),
    VSCAN_NAME(DAT_USERINTERFACE),
    VSCAN_NAME(DAT_XFERGROUP),
    VSCAN_NAME(DAT_IMAGEINFO),
    VSCAN_NAME(DAT_IMAGELAYOUT),
    VSCAN_NAME(DAT_IMAGEMEMXFER),
    VSCAN_NAME(DAT_IMAGENATIVEXFER),
    VSCAN_NAME(DAT_IMAGEFILEXFER),
    VSCAN_NAME(DAT_PALETTE8),
    VSCAN_NAME(MSG_GET),
    VSCAN_NAME(MSG_GETCURRENT),
    VSCAN_NAME(MSG_GETDEFAULT),
    VSCAN_NAME(MSG_SET),
    VSCAN_NAME(MSG_RESET),
    VSCAN_NAME(MSG_QUERYSUPPORT),
    VSCAN_NAME(MSG_OPENDS),
    VSCAN_NAME(MSG_CLOSEDS),
    VSCAN_NAME(MSG_DISABLEDS),
    VSCAN_NAME(MSG_ENABLEDS),
    VSCAN_NAME(MSG_ENABLEDSUIONLY),
    VSCAN_NAME(MSG_PROCESSEVENT),
    VSCAN_NAME(MSG_ENDXFER),
    VSCAN_NAME(TWRC_SUCCESS),
    VSCAN_NAME(TWRC_FAILURE),
    VSCAN_NAME(TWRC_CHECKSTATUS),
    VSCAN_NAME(TWRC_CANCEL),
    VSCAN_NAME(TWRC_DSEVENT),
    VSCAN_NAME(TWRC_NOTDSEVENT),
    VSCAN_NAME(TWRC_XFERDONE),
    VSCAN_NAME(TWRC_ENDOFLIST),
    VSCAN_NAME(TWCC_SUCCESS),
    VSCAN_NAME(TWCC_BUMMER),
    VSCAN_NAME(TWCC_LOWMEMORY),
    VSCAN_NAME(TWCC_NODS),
    VSCAN_NAME(TWCC_OPERATIONERROR),
    VSCAN_NAME(TWCC_BADCAP),
    VSCAN_NAME(TWCC_BADPROTOCOL),
    VSCAN_NAME(TWCC_BADVALUE),
    VSCAN_NAME(TWCC_SEQERROR),
    VSCAN_NAME(TWCC_BADDEST),
    VSCAN_NAME(TWCC_CAPUNSUPPORTED),
    VSCAN_NAME(TWCC_CAPBADOPERATION),
    VSCAN_NAME(TWCC_CAPSEQERROR),
    VSCAN_NAME(TWCC_DENIED),
    VSCAN_NAME(TWCC_PAPERJAM),
    VSCAN_NAME(TWCC_PAPERDOUBLEFEED),
    VSCAN_NAME(TWCC_FILEWRITEERROR),
    VSCAN_NAME(TWCC_CHECKDEVICEONLINE),
    VSCAN_NAME(TWON_ARRAY),
    VSCAN_NAME(TWON_ENUMERATION),
    VSCAN_NAME(TWON_ONEVALUE),
    VSCAN_NAME(TWON_RANGE),
    VSCAN_NAME(TWON_DONTCARE16),
    VSCAN_NAME(TWTY_INT8),
    VSCAN_NAME(TWTY_INT16),
    VSCAN_NAME(TWTY_INT32),
    VSCAN_NAME(TWTY_UINT8),
    VSCAN_NAME(TWTY_UINT16),
    VSCAN_NAME(TWTY_UINT32),
    VSCAN_NAME(TWTY_BOOL),
    VSCAN_NAME(TWTY_FIX32),
    VSCAN_NAME(CAP_XFERCOUNT),
    VSCAN_NAME(CAP_SUPPORTEDCAPS),
    VSCAN_NAME(CAP_UICONTROLLABLE),
    VSCAN_NAME(CAP_FEEDERENABLED),
    VSCAN_NAME(CAP_FEEDERLOADED),
    VSCAN_NAME(CAP_AUTOFEED),
    VSCAN_NAME(CAP_INDICATORS),
    VSCAN_NAME(CAP_THUMBNAILSENABLED),
    VSCAN_NAME(ICAP_COMPRESSION),
    VSCAN_NAME(ICAP_UNITS),
    VSCAN_NAME(ICAP_PIXELTYPE),
    VSCAN_NAME(ICAP_BITDEPTH),
    VSCAN_NAME(ICAP_XFERMECH),
    VSCAN_NAME(ICAP_PLANARCHUNKY),
    VSCAN_NAME(ICAP_XRESOLUTION),
    VSCAN_NAME(ICAP_YRESOLUTION),
    VSCAN_NAME(ICAP_XSCALING),
    VSCAN_NAME(ICAP_YSCALING),
    VSCAN_NAME(ICAP_BRIGHTNESS),
    VSCAN_NAME(ICAP_CONTRAST),
    VSCAN_NAME(ICAP_HIGHLIGHT),
    VSCAN_NAME(ICAP_SHADOW),
    VSCAN_NAME(ICAP_THRESHOLD),
    VSCAN_NAME(ICAP_GAMMA),
    VSCAN_NAME(ICAP_PHYSICALWIDTH),
    VSCAN_NAME(ICAP_PHYSICALHEIGHT),
    VSCAN_NAME(ICAP_SUPPORTEDSIZES),
    VSCAN_NAME(ICAP_LIGHTPATH),
    VSCAN_NAME(ICAP_PIXELFLAVOR),
    VSCAN_NAME(ICAP_IMAGEDATASET),
    VSCAN_NAME(VSCAN_AUTO_OFF),
    VSCAN_NAME(VSCAN_AUTO_SCAN),
    VSCAN_NAME(VSCAN_AUTO_SCAN_CLOSE),
    VSCAN_NAME(VSCAN_MALFORMED_NONE),
    VSCAN_NAME(VSCAN_MALFORMED_NULLHANDLE),
    VSCAN_NAME(VSCAN_MALFORMED_ITEMTYPE),
    VSCAN_NAME(VSCAN_MALFORMED_NUMITEMS),
    VSCAN_NAME(VSCAN_MALFORMED_CURRENTINDEX),
    VSCAN_NAME(VSCAN_MALFORMED_SHORTBLOCK),
    VSCAN_NAME(VSCAN_CLOSEREQUEST_OFF),
    VSCAN_NAME(VSCAN_IMAGEPIXELTYPE_OFF),
    VSCAN_NAME(VSCAN_STRIPROWS_OFF),
};
#undef VSCAN_NAME

// The single-value faults by key.
const Name kFaultKeys[] = {
    {"UnknownLength", VSCAN_FAULT_UNKNOWNLENGTH},
    {"CancelImage", VSCAN_FAULT_CANCELIMAGE},
    {"CancelBlock", VSCAN_FAULT_CANCELBLOCK},
    {"BytesWrittenDelta", VSCAN_FAULT_BYTESWRITTENDELTA},
    {"ZeroBufferSizes", VSCAN_FAULT_ZEROBUFFERSIZES},
    {"PaletteColors", VSCAN_FAULT_PALETTECOLORS},
    {"CloseRequestAfter", VSCAN_FAULT_CLOSEREQUESTAFTER},
    {"MinBufSize", VSCAN_FAULT_MINBUFSIZE},
    {"MaxBufSize", VSCAN_FAULT_MAXBUFSIZE},
    {"PreferredBufSize", VSCAN_FAULT_PREFERREDBUFSIZE},
    {"ZeroRangeStep", VSCAN_FAULT_ZERORANGESTEP},
    {"DpiInEveryUnit", VSCAN_FAULT_DPIINEVERYUNIT},
    {"UnknownPending", VSCAN_FAULT_UNKNOWNPENDING},
    {"ImagePixelType", VSCAN_FAULT_IMAGEPIXELTYPE},
    {"Compression", VSCAN_FAULT_COMPRESSION},
    {"StripRows", VSCAN_FAULT_STRIPROWS},
    {"StripXOffsetDelta", VSCAN_FAULT_STRIPXOFFSETDELTA},
    {"StripYOffsetDelta", VSCAN_FAULT_STRIPYOFFSETDELTA},
    {"ColumnsDelta", VSCAN_FAULT_COLUMNSDELTA},
    {"RowAlign", VSCAN_FAULT_ROWALIGN},
    {"KeepFeeder", VSCAN_FAULT_KEEPFEEDER},
    {"XferReadyEach", VSCAN_FAULT_XFERREADYEACH},
    {"RepeatRows", VSCAN_FAULT_REPEATROWS},
};

std::string Trim(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

bool SameText(const std::string &a, const char *b) {
    return lstrcmpiA(a.c_str(), b) == 0;
}

// A number (decimal, 0x hexadecimal, signed) or one of the names above.
bool ParseValue(const std::string &text, long &value) {
    const std::string word = Trim(text);
    if (word.empty())
        return false;
    char *end = nullptr;
    value = std::strtol(word.c_str(), &end, 0);
    if (*end == '\0')
        return true;
    for (const Name &name : kNames) {
        if (SameText(word, name.name)) {
            value = name.value;
            return true;
        }
    }
    return false;
}

// Comma-separated values: at least `required`, the rest taking the defaults given.
bool ParseList(const std::string &text, size_t required, std::vector<long> &values) {
    std::stringstream stream(text);
    std::string field;
    size_t i = 0;
    while (std::getline(stream, field, ',')) {
        long value;
        if (i >= values.size() || !ParseValue(field, value))
            return false;
        values[i++] = value;
    }
    return i >= required;
}

bool ApplyFail(Source &s, const std::string &text) {
    std::vector<long> v = {0, 0, 0, 0, TWRC_FAILURE, TWCC_BUMMER, 1, 0};
    if (!ParseList(text, 6, v))
        return false;
    TripletFault fault{static_cast<TW_UINT32>(v[0]), static_cast<TW_UINT16>(v[1]), static_cast<TW_UINT16>(v[2]),
                       static_cast<TW_UINT16>(v[3]), static_cast<TW_UINT16>(v[4]), static_cast<TW_UINT16>(v[5]),
                       static_cast<int>(v[6]),       static_cast<int>(v[7]),       0};
    return AddTripletFault(s, fault);
}

bool ApplyKey(Source &s, const std::string &key, const std::string &value) {
    std::vector<long> v(3, 0);
    if (SameText(key, "Manufacturer"))
        return SetIdentity(s, value.c_str(), nullptr, nullptr), true;
    if (SameText(key, "ProductFamily"))
        return SetIdentity(s, nullptr, value.c_str(), nullptr), true;
    if (SameText(key, "ProductName"))
        return SetIdentity(s, nullptr, nullptr, value.c_str()), true;
    if (SameText(key, "Pages")) // the feeder file stays as it is: the opening reads it, whatever the keys' order
        return ParseList(value, 1, v) && v[0] >= 0 && (SetPages(s, static_cast<int>(v[0])), true);
    if (SameText(key, "AutoScan"))
        return ParseList(value, 1, v) && SetAutoScan(s, static_cast<int>(v[0]));
    if (SameText(key, "Fail"))
        return ApplyFail(s, value);
    if (SameText(key, "Container"))
        return ParseList(value, 3, v) && SetContainer(s, static_cast<TW_UINT16>(v[0]), static_cast<TW_UINT16>(v[1]),
                                                      static_cast<TW_UINT16>(v[2]));
    if (SameText(key, "ItemType"))
        return ParseList(value, 2, v) && SetItemType(s, static_cast<TW_UINT16>(v[0]), static_cast<TW_UINT16>(v[1]));
    if (SameText(key, "Malformed"))
        return ParseList(value, 3, v) &&
               SetMalformed(s, static_cast<TW_UINT16>(v[0]), static_cast<TW_UINT16>(v[1]), static_cast<int>(v[2]));
    if (SameText(key, "Values")) {
        std::vector<long> list(VSCAN_MAX_VALUES + 1, 0);
        if (!ParseList(value, 1, list))
            return false;
        const auto count = static_cast<size_t>(std::count(value.begin(), value.end(), ','));
        return SetValues(s, static_cast<TW_UINT16>(list[0]),
                         std::vector<double>(list.begin() + 1, list.begin() + 1 + count));
    }
    if (SameText(key, "SetType"))
        return ParseList(value, 2, v) && SetSetType(s, static_cast<TW_UINT16>(v[0]), static_cast<TW_UINT16>(v[1]));
    for (const Name &fault : kFaultKeys)
        if (SameText(key, fault.name))
            return ParseList(value, 1, v) && SetFault(s, static_cast<int>(fault.value), static_cast<int>(v[0]));
    return false;
}

} // namespace

std::string PathBesideModule(const char *fileName) {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(ModuleInstance(), path, sizeof path);
    std::string dir(path);
    const size_t slash = dir.find_last_of("\\/");
    return (slash == std::string::npos ? std::string() : dir.substr(0, slash + 1)) + fileName;
}

std::string DefaultSettingsPath() {
    return PathBesideModule("vscan.ini");
}

int LoadSettings(Source &s, const std::string &path) {
    std::ifstream file(path);
    if (!file)
        return -1;
    int applied = 0;
    std::string line;
    while (std::getline(file, line)) {
        line = Trim(line);
        if (line.empty() || line[0] == ';' || line[0] == '#' || line[0] == '[')
            continue; // comments and section headers
        const size_t equals = line.find('=');
        if (equals == std::string::npos || !ApplyKey(s, Trim(line.substr(0, equals)), Trim(line.substr(equals + 1))))
            return -1;
        ++applied;
    }
    return applied;
}

} // namespace vscan
