// The test controls: the exported Vscan... functions and the switches they and vscan.ini share.
#include "Control.h"

#include "Caps.h"
#include "Settings.h"

namespace vscan {

namespace {

// A name of the identity; NULL keeps the one it has.
void CopyName(char *to, size_t size, const char *from) {
    if (from)
        CopyText(to, size, from);
}

bool IsContainer(TW_UINT16 conType) {
    return conType == TWON_ONEVALUE || conType == TWON_ENUMERATION || conType == TWON_RANGE || conType == TWON_ARRAY;
}

bool IsNumberType(TW_UINT16 itemType) {
    return itemType <= TWTY_FIX32 || itemType == TWON_DONTCARE16;
}

} // namespace

void SetPages(Source &s, int pages) {
    s.pages = pages < 0 ? 0 : pages;
    s.sheetsLeft = s.pages;
}

bool SetAutoScan(Source &s, int mode) {
    if (mode < VSCAN_AUTO_OFF || mode > VSCAN_AUTO_SCAN_CLOSE)
        return false;
    s.autoScan = mode;
    return true;
}

void SetIdentity(Source &s, const char *manufacturer, const char *family, const char *product) {
    CopyName(s.identity.Manufacturer, sizeof s.identity.Manufacturer, manufacturer);
    CopyName(s.identity.ProductFamily, sizeof s.identity.ProductFamily, family);
    CopyName(s.identity.ProductName, sizeof s.identity.ProductName, product);
}

bool AddTripletFault(Source &s, const TripletFault &fault) {
    if (s.tripletFaults.size() >= VSCAN_MAX_FAILS || fault.first < 1 || fault.count < 0)
        return false;
    s.tripletFaults.push_back(fault);
    s.tripletFaults.back().calls = 0;
    return true;
}

bool SetContainer(Source &s, TW_UINT16 cap, TW_UINT16 msg, TW_UINT16 conType) {
    const int slot = AnswerSlot(msg);
    if (!IsKnownCap(cap) || slot < 0 || !IsContainer(conType))
        return false;
    s.answers[cap].container[slot] = conType;
    return true;
}

bool SetItemType(Source &s, TW_UINT16 cap, TW_UINT16 itemType) {
    if (!IsKnownCap(cap) || !IsNumberType(itemType))
        return false;
    s.answers[cap].itemType = itemType;
    return true;
}

bool SetFault(Source &s, int fault, int value) {
    if (fault <= 0 || fault >= VSCAN_FAULT_COUNT)
        return false;
    s.faults[fault] = value;
    return true;
}

bool SetMalformed(Source &s, TW_UINT16 cap, TW_UINT16 msg, int kind) {
    const int slot = AnswerSlot(msg);
    if (!IsKnownCap(cap) || slot < 0 || kind < VSCAN_MALFORMED_NONE || kind >= VSCAN_MALFORMED_COUNT)
        return false;
    s.answers[cap].malformed[slot] = kind;
    return true;
}

bool SetSetType(Source &s, TW_UINT16 cap, TW_UINT16 itemType) {
    if (!IsKnownCap(cap) || !IsNumberType(itemType))
        return false;
    s.answers[cap].setType = itemType;
    return true;
}

bool SetValues(Source &s, TW_UINT16 cap, const std::vector<double> &values) {
    if (!IsKnownCap(cap) || values.size() > VSCAN_MAX_VALUES)
        return false;
    s.answers[cap].values = values;
    return true;
}

} // namespace vscan

extern "C" {

void __cdecl VscanReset(void) {
    vscan::ResetAll(vscan::TheSource());
}

int __cdecl VscanLoadSettings(const char *path) {
    return path ? vscan::LoadSettings(vscan::TheSource(), path) : -1;
}

void __cdecl VscanSetPages(int pages) {
    vscan::Source &s = vscan::TheSource();
    vscan::SetPages(s, pages);
    vscan::KeepFeeder(s); // a test loading the kept feeder; the settings file's Pages key leaves it alone
}

void __cdecl VscanSetAutoScan(int mode) {
    vscan::SetAutoScan(vscan::TheSource(), mode);
}

void __cdecl VscanSetIdentity(const char *manufacturer, const char *family, const char *product) {
    vscan::SetIdentity(vscan::TheSource(), manufacturer, family, product);
}

int __cdecl VscanFailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 cap, TW_UINT16 rc, TW_UINT16 cc,
                             int first, int count) {
    return vscan::AddTripletFault(vscan::TheSource(), vscan::TripletFault{dg, dat, msg, cap, rc, cc, first, count, 0});
}

int __cdecl VscanSetContainer(TW_UINT16 cap, TW_UINT16 msg, TW_UINT16 conType) {
    return vscan::SetContainer(vscan::TheSource(), cap, msg, conType);
}

int __cdecl VscanSetItemType(TW_UINT16 cap, TW_UINT16 itemType) {
    return vscan::SetItemType(vscan::TheSource(), cap, itemType);
}

int __cdecl VscanSetFault(int fault, int value) {
    return vscan::SetFault(vscan::TheSource(), fault, value);
}

int __cdecl VscanSetMalformed(TW_UINT16 cap, TW_UINT16 msg, int kind) {
    return vscan::SetMalformed(vscan::TheSource(), cap, msg, kind);
}

int __cdecl VscanSetSetType(TW_UINT16 cap, TW_UINT16 itemType) {
    return vscan::SetSetType(vscan::TheSource(), cap, itemType);
}

int __cdecl VscanSetValues(TW_UINT16 cap, int count, const double *values) {
    if (count < 0 || (count > 0 && !values))
        return 0;
    return vscan::SetValues(vscan::TheSource(), cap, std::vector<double>(values, values + count));
}

void __cdecl VscanGetInfo(VscanInfo *out) {
    if (!out)
        return;
    const vscan::Source &s = vscan::TheSource();
    out->state = s.state;
    out->pending = vscan::PendingCount(s);
    out->sheetsLeft = s.sheetsLeft;
    out->imagesStarted = s.imagesStarted;
    out->imagesDone = s.imagesDone;
    out->lastCc = s.lastCc;
    out->window = s.window;
    out->notifyMessage = vscan::NotifyMessage();
    out->appId = s.app.Id;
    out->settingsKeys = s.settingsKeys;
}

} // extern "C"
