/* TWAIN 1.x definitions (structures with 2-byte packing, codes) shared by the library and its test programs. */
#ifndef TWAIN1X_H
#define TWAIN1X_H

#include <stddef.h>
#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Basic types, as 32-bit Windows sees them. */
typedef char TW_INT8;
typedef short TW_INT16;
typedef int TW_INT32;
typedef unsigned char TW_UINT8;
typedef unsigned short TW_UINT16;
typedef unsigned int TW_UINT32;
typedef unsigned short TW_BOOL;
typedef HANDLE TW_HANDLE;
typedef void *TW_MEMREF;
typedef char TW_STR32[34];
typedef char TW_STR64[66];
typedef char TW_STR128[130];
typedef char TW_STR255[256];

#pragma pack(push, 2)

typedef struct {
    TW_INT16 Whole;
    TW_UINT16 Frac;
} TW_FIX32, *pTW_FIX32;

typedef struct {
    TW_FIX32 Left;
    TW_FIX32 Top;
    TW_FIX32 Right;
    TW_FIX32 Bottom;
} TW_FRAME, *pTW_FRAME;

typedef struct {
    TW_UINT16 MajorNum;
    TW_UINT16 MinorNum;
    TW_UINT16 Language;
    TW_UINT16 Country;
    TW_STR32 Info;
} TW_VERSION, *pTW_VERSION;

typedef struct {
    TW_UINT32 Id;
    TW_VERSION Version;
    TW_UINT16 ProtocolMajor;
    TW_UINT16 ProtocolMinor;
    TW_UINT32 SupportedGroups;
    TW_STR32 Manufacturer;
    TW_STR32 ProductFamily;
    TW_STR32 ProductName;
} TW_IDENTITY, *pTW_IDENTITY;

typedef struct {
    TW_UINT16 Cap;
    TW_UINT16 ConType;
    TW_HANDLE hContainer;
} TW_CAPABILITY, *pTW_CAPABILITY;

typedef struct {
    TW_UINT16 ItemType;
    TW_UINT32 Item;
} TW_ONEVALUE, *pTW_ONEVALUE;

typedef struct {
    TW_UINT16 ItemType;
    TW_UINT32 NumItems;
    TW_UINT32 CurrentIndex;
    TW_UINT32 DefaultIndex;
    TW_UINT8 ItemList[1];
} TW_ENUMERATION, *pTW_ENUMERATION;

typedef struct {
    TW_UINT16 ItemType;
    TW_UINT32 MinValue;
    TW_UINT32 MaxValue;
    TW_UINT32 StepSize;
    TW_UINT32 DefaultValue;
    TW_UINT32 CurrentValue;
} TW_RANGE, *pTW_RANGE;

typedef struct {
    TW_UINT16 ItemType;
    TW_UINT32 NumItems;
    TW_UINT8 ItemList[1];
} TW_ARRAY, *pTW_ARRAY;

typedef struct {
    TW_UINT16 ConditionCode;
    TW_UINT16 Reserved;
} TW_STATUS, *pTW_STATUS;

typedef struct {
    TW_BOOL ShowUI;
    TW_BOOL ModalUI;
    TW_HANDLE hParent;
} TW_USERINTERFACE, *pTW_USERINTERFACE;

typedef struct {
    TW_MEMREF pEvent;
    TW_UINT16 TWMessage;
} TW_EVENT, *pTW_EVENT;

typedef struct {
    TW_UINT16 Count;
    union {
        TW_UINT32 EOJ;
        TW_UINT32 Reserved;
    };
} TW_PENDINGXFERS, *pTW_PENDINGXFERS;

typedef struct {
    TW_UINT32 MinBufSize;
    TW_UINT32 MaxBufSize;
    TW_UINT32 Preferred;
} TW_SETUPMEMXFER, *pTW_SETUPMEMXFER;

typedef struct {
    TW_UINT32 Flags;
    TW_UINT32 Length;
    TW_MEMREF TheMem;
} TW_MEMORY, *pTW_MEMORY;

typedef struct {
    TW_UINT16 Compression;
    TW_UINT32 BytesPerRow;
    TW_UINT32 Columns;
    TW_UINT32 Rows;
    TW_UINT32 XOffset;
    TW_UINT32 YOffset;
    TW_UINT32 BytesWritten;
    TW_MEMORY Memory;
} TW_IMAGEMEMXFER, *pTW_IMAGEMEMXFER;

typedef struct {
    TW_STR255 FileName;
    TW_UINT16 Format;
    TW_INT16 VRefNum;
} TW_SETUPFILEXFER, *pTW_SETUPFILEXFER;

typedef struct {
    TW_FIX32 XResolution;
    TW_FIX32 YResolution;
    TW_INT32 ImageWidth;
    TW_INT32 ImageLength;
    TW_INT16 SamplesPerPixel;
    TW_INT16 BitsPerSample[8];
    TW_INT16 BitsPerPixel;
    TW_BOOL Planar;
    TW_INT16 PixelType;
    TW_UINT16 Compression;
} TW_IMAGEINFO, *pTW_IMAGEINFO;

typedef struct {
    TW_FRAME Frame;
    TW_UINT32 DocumentNumber;
    TW_UINT32 PageNumber;
    TW_UINT32 FrameNumber;
} TW_IMAGELAYOUT, *pTW_IMAGELAYOUT;

typedef struct {
    TW_UINT8 Index;
    TW_UINT8 Channel1;
    TW_UINT8 Channel2;
    TW_UINT8 Channel3;
} TW_ELEMENT8, *pTW_ELEMENT8;

typedef struct {
    TW_UINT16 NumColors;
    TW_UINT16 PaletteType;
    TW_ELEMENT8 Colors[256];
} TW_PALETTE8, *pTW_PALETTE8;

#pragma pack(pop)

/* Entry points: the source manager's and a data source's, both standard-call. */
typedef TW_UINT16(WINAPI *DSMENTRYPROC)(pTW_IDENTITY origin, pTW_IDENTITY dest, TW_UINT32 dg, TW_UINT16 dat,
                                        TW_UINT16 msg, TW_MEMREF data);
typedef TW_UINT16(WINAPI *DSENTRYPROC)(pTW_IDENTITY origin, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data);

/* Data groups. */
#define DG_CONTROL 0x0001
#define DG_IMAGE 0x0002
#define DG_AUDIO 0x0004

/* Data argument types. */
#define DAT_NULL 0x0000
#define DAT_CAPABILITY 0x0001
#define DAT_EVENT 0x0002
#define DAT_IDENTITY 0x0003
#define DAT_PARENT 0x0004
#define DAT_PENDINGXFERS 0x0005
#define DAT_SETUPMEMXFER 0x0006
#define DAT_SETUPFILEXFER 0x0007
#define DAT_STATUS 0x0008
#define DAT_USERINTERFACE 0x0009
#define DAT_XFERGROUP 0x000a
#define DAT_IMAGEINFO 0x0101
#define DAT_IMAGELAYOUT 0x0102
#define DAT_IMAGEMEMXFER 0x0103
#define DAT_IMAGENATIVEXFER 0x0104
#define DAT_IMAGEFILEXFER 0x0105
#define DAT_PALETTE8 0x010a

/* Messages. */
#define MSG_NULL 0x0000
#define MSG_GET 0x0001
#define MSG_GETCURRENT 0x0002
#define MSG_GETDEFAULT 0x0003
#define MSG_GETFIRST 0x0004
#define MSG_GETNEXT 0x0005
#define MSG_SET 0x0006
#define MSG_RESET 0x0007
#define MSG_QUERYSUPPORT 0x0008
#define MSG_XFERREADY 0x0101
#define MSG_CLOSEDSREQ 0x0102
#define MSG_CLOSEDSOK 0x0103
#define MSG_DEVICEEVENT 0x0104
#define MSG_OPENDSM 0x0301
#define MSG_CLOSEDSM 0x0302
#define MSG_OPENDS 0x0401
#define MSG_CLOSEDS 0x0402
#define MSG_USERSELECT 0x0403
#define MSG_DISABLEDS 0x0501
#define MSG_ENABLEDS 0x0502
#define MSG_ENABLEDSUIONLY 0x0503
#define MSG_PROCESSEVENT 0x0601
#define MSG_ENDXFER 0x0701
#define MSG_STOPFEEDER 0x0702

/* Return codes. */
#define TWRC_SUCCESS 0
#define TWRC_FAILURE 1
#define TWRC_CHECKSTATUS 2
#define TWRC_CANCEL 3
#define TWRC_DSEVENT 4
#define TWRC_NOTDSEVENT 5
#define TWRC_XFERDONE 6
#define TWRC_ENDOFLIST 7
#define TWRC_INFONOTSUPPORTED 8
#define TWRC_DATANOTAVAILABLE 9

/* Condition codes. */
#define TWCC_SUCCESS 0
#define TWCC_BUMMER 1
#define TWCC_LOWMEMORY 2
#define TWCC_NODS 3
#define TWCC_MAXCONNECTIONS 4
#define TWCC_OPERATIONERROR 5
#define TWCC_BADCAP 6
#define TWCC_BADPROTOCOL 9
#define TWCC_BADVALUE 10
#define TWCC_SEQERROR 11
#define TWCC_BADDEST 12
#define TWCC_CAPUNSUPPORTED 13
#define TWCC_CAPBADOPERATION 14
#define TWCC_CAPSEQERROR 15
#define TWCC_DENIED 16
#define TWCC_FILEEXISTS 17
#define TWCC_FILENOTFOUND 18
#define TWCC_NOTEMPTY 19
#define TWCC_PAPERJAM 20
#define TWCC_PAPERDOUBLEFEED 21
#define TWCC_FILEWRITEERROR 22
#define TWCC_CHECKDEVICEONLINE 23

/* Container types. */
#define TWON_ARRAY 3
#define TWON_ENUMERATION 4
#define TWON_ONEVALUE 5
#define TWON_RANGE 6
#define TWON_DONTCARE16 0xffff

/* Item types. */
#define TWTY_INT8 0x0000
#define TWTY_INT16 0x0001
#define TWTY_INT32 0x0002
#define TWTY_UINT8 0x0003
#define TWTY_UINT16 0x0004
#define TWTY_UINT32 0x0005
#define TWTY_BOOL 0x0006
#define TWTY_FIX32 0x0007
#define TWTY_FRAME 0x0008
#define TWTY_STR32 0x0009
#define TWTY_STR64 0x000a
#define TWTY_STR128 0x000b
#define TWTY_STR255 0x000c

/* Capabilities. */
#define CAP_XFERCOUNT 0x0001
#define ICAP_COMPRESSION 0x0100
#define ICAP_PIXELTYPE 0x0101
#define ICAP_UNITS 0x0102
#define ICAP_XFERMECH 0x0103
#define CAP_SUPPORTEDCAPS 0x1005
#define CAP_FEEDERENABLED 0x1002
#define CAP_FEEDERLOADED 0x1003
#define CAP_AUTOFEED 0x1007
#define CAP_INDICATORS 0x100b
#define CAP_UICONTROLLABLE 0x100e
#define CAP_THUMBNAILSENABLED 0x1011
#define ICAP_BRIGHTNESS 0x1101
#define ICAP_CONTRAST 0x1103
#define ICAP_GAMMA 0x1108
#define ICAP_HIGHLIGHT 0x110a
#define ICAP_PHYSICALWIDTH 0x1111
#define ICAP_PHYSICALHEIGHT 0x1112
#define ICAP_SHADOW 0x1113
#define ICAP_XRESOLUTION 0x1118
#define ICAP_YRESOLUTION 0x1119
#define ICAP_LIGHTPATH 0x111e
#define ICAP_PIXELFLAVOR 0x111f
#define ICAP_PLANARCHUNKY 0x1120
#define ICAP_SUPPORTEDSIZES 0x1122
#define ICAP_THRESHOLD 0x1123
#define ICAP_XSCALING 0x1124
#define ICAP_YSCALING 0x1125
#define ICAP_BITDEPTH 0x112b
#define ICAP_IMAGEDATASET 0x112e

/* Pixel types. */
#define TWPT_BW 0
#define TWPT_GRAY 1
#define TWPT_RGB 2
#define TWPT_PALETTE 3
#define TWPT_CMY 4
#define TWPT_CMYK 5
#define TWPT_YUV 6
#define TWPT_YUVK 7
#define TWPT_CIEXYZ 8

/* Units. */
#define TWUN_INCHES 0
#define TWUN_CENTIMETERS 1
#define TWUN_PICAS 2
#define TWUN_POINTS 3
#define TWUN_TWIPS 4
#define TWUN_PIXELS 5

/* Transfer mechanisms. */
#define TWSX_NATIVE 0
#define TWSX_FILE 1
#define TWSX_MEMORY 2

/* Supported sizes. */
#define TWSS_NONE 0
#define TWSS_A4LETTER 1
#define TWSS_B5LETTER 2
#define TWSS_USLETTER 3
#define TWSS_USLEGAL 4
#define TWSS_A5 5
#define TWSS_B4 6
#define TWSS_B6 7

/* File formats. */
#define TWFF_TIFF 0
#define TWFF_PICT 1
#define TWFF_BMP 2

/* Memory flags. */
#define TWMF_APPOWNS 0x0001
#define TWMF_DSMOWNS 0x0002
#define TWMF_DSOWNS 0x0004
#define TWMF_POINTER 0x0008
#define TWMF_HANDLE 0x0010

/* Pixel flavours, light paths, palette types, compression. */
#define TWPF_CHOCOLATE 0
#define TWPF_VANILLA 1
#define TWLP_REFLECTIVE 0
#define TWLP_TRANSMISSIVE 1
#define TWPA_RGB 0
#define TWPA_GRAY 1
#define TWCP_NONE 0

/* Language and country of an identity. */
#define TWLG_USA 13
#define TWCY_USA 1

/* Protocol version this header describes. */
#define TWON_PROTOCOLMAJOR 1
#define TWON_PROTOCOLMINOR 9

/* Sample arrangements of ICAP_PLANARCHUNKY. */
#define TWPC_CHUNKY 0
#define TWPC_PLANAR 1

/* Operations a capability allows, as MSG_QUERYSUPPORT reports them. */
#define TWQC_GET 0x0001
#define TWQC_SET 0x0002
#define TWQC_GETDEFAULT 0x0004
#define TWQC_GETCURRENT 0x0008
#define TWQC_RESET 0x0010

/* Bytes one item of a TWTY_ type takes in an item list, as the standard lays them out; 0 for an
   unknown type. */
static inline TW_UINT32 TW_ItemTypeSize(TW_UINT16 itemType) {
    switch (itemType) {
    case TWTY_INT8:
    case TWTY_UINT8:
        return 1;
    case TWTY_INT16:
    case TWTY_UINT16:
    case TWTY_BOOL:
        return 2;
    case TWTY_INT32:
    case TWTY_UINT32:
    case TWTY_FIX32:
        return 4;
    case TWTY_FRAME:
        return sizeof(TW_FRAME);
    case TWTY_STR32:
        return sizeof(TW_STR32);
    case TWTY_STR64:
        return sizeof(TW_STR64);
    case TWTY_STR128:
        return sizeof(TW_STR128);
    case TWTY_STR255:
        return sizeof(TW_STR255);
    default:
        return 0;
    }
}

/* Layouts as 32-bit Windows packs them; anything else breaks the wire format. */
#ifdef __cplusplus
#define TW_LAYOUT_CHECK(cond, what) static_assert(cond, what)
#else
#define TW_LAYOUT_CHECK(cond, what) _Static_assert(cond, what)
#endif
TW_LAYOUT_CHECK(sizeof(TW_FIX32) == 4, "TW_FIX32");
TW_LAYOUT_CHECK(sizeof(TW_FRAME) == 16, "TW_FRAME");
TW_LAYOUT_CHECK(sizeof(TW_VERSION) == 42, "TW_VERSION");
TW_LAYOUT_CHECK(sizeof(TW_IDENTITY) == 156, "TW_IDENTITY");
TW_LAYOUT_CHECK(offsetof(TW_IDENTITY, ProtocolMajor) == 46, "TW_IDENTITY.ProtocolMajor");
TW_LAYOUT_CHECK(offsetof(TW_IDENTITY, SupportedGroups) == 50, "TW_IDENTITY.SupportedGroups");
TW_LAYOUT_CHECK(offsetof(TW_IDENTITY, Manufacturer) == 54, "TW_IDENTITY.Manufacturer");
TW_LAYOUT_CHECK(offsetof(TW_IDENTITY, ProductFamily) == 88, "TW_IDENTITY.ProductFamily");
TW_LAYOUT_CHECK(offsetof(TW_IDENTITY, ProductName) == 122, "TW_IDENTITY.ProductName");
TW_LAYOUT_CHECK(sizeof(TW_CAPABILITY) == 8, "TW_CAPABILITY");
TW_LAYOUT_CHECK(sizeof(TW_ONEVALUE) == 6, "TW_ONEVALUE");
TW_LAYOUT_CHECK(offsetof(TW_ENUMERATION, ItemList) == 14, "TW_ENUMERATION.ItemList");
TW_LAYOUT_CHECK(sizeof(TW_ENUMERATION) == 16, "TW_ENUMERATION");
TW_LAYOUT_CHECK(sizeof(TW_RANGE) == 22, "TW_RANGE");
TW_LAYOUT_CHECK(offsetof(TW_ARRAY, ItemList) == 6, "TW_ARRAY.ItemList");
TW_LAYOUT_CHECK(sizeof(TW_ARRAY) == 8, "TW_ARRAY");
TW_LAYOUT_CHECK(sizeof(TW_STATUS) == 4, "TW_STATUS");
TW_LAYOUT_CHECK(sizeof(TW_USERINTERFACE) == 8, "TW_USERINTERFACE");
TW_LAYOUT_CHECK(sizeof(TW_EVENT) == 6, "TW_EVENT");
TW_LAYOUT_CHECK(sizeof(TW_PENDINGXFERS) == 6, "TW_PENDINGXFERS");
TW_LAYOUT_CHECK(sizeof(TW_SETUPMEMXFER) == 12, "TW_SETUPMEMXFER");
TW_LAYOUT_CHECK(sizeof(TW_MEMORY) == 12, "TW_MEMORY");
TW_LAYOUT_CHECK(sizeof(TW_IMAGEMEMXFER) == 38, "TW_IMAGEMEMXFER");
TW_LAYOUT_CHECK(offsetof(TW_IMAGEMEMXFER, Memory) == 26, "TW_IMAGEMEMXFER.Memory");
TW_LAYOUT_CHECK(sizeof(TW_SETUPFILEXFER) == 260, "TW_SETUPFILEXFER");
TW_LAYOUT_CHECK(sizeof(TW_IMAGEINFO) == 42, "TW_IMAGEINFO");
TW_LAYOUT_CHECK(offsetof(TW_IMAGEINFO, BitsPerPixel) == 34, "TW_IMAGEINFO.BitsPerPixel");
TW_LAYOUT_CHECK(offsetof(TW_IMAGEINFO, PixelType) == 38, "TW_IMAGEINFO.PixelType");
TW_LAYOUT_CHECK(sizeof(TW_IMAGELAYOUT) == 28, "TW_IMAGELAYOUT");
TW_LAYOUT_CHECK(sizeof(TW_PALETTE8) == 1028, "TW_PALETTE8");
#undef TW_LAYOUT_CHECK

#ifdef __cplusplus
}
#endif

#endif /* TWAIN1X_H */
