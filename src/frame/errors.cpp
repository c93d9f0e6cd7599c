// The error table and its texts.
//
// A stored message whose first byte is below 20 is prefix coded: that byte
// indexes kPrefixes and the rest of the message follows it. The full text
// is then built in one shared buffer, which the next call overwrites.
#include <array>
#include <cstring>
#include <string_view>

#include "frame/globals.h"

using namespace std::string_view_literals;

namespace {

constexpr std::array kPrefixes = {
    "Can't allocate "sv, "Error loading "sv, "Error deleting "sv, "Error freeing "sv,
    "Error allocating "sv, "Can't resolve "sv, "Can't "sv, "Error in "sv,
    "Error "sv, "Attempt to "sv,
};

constexpr std::array<std::string_view, ksErrorCount> kMessages = {
    "No error"sv,  // 0
    "\x00" "control block"sv,  // 1
    "General failure"sv,  // 2
    "\x06" "open file"sv,  // 3
    "\x08" "reading header"sv,  // 4
    "\x06" "determine file type"sv,  // 5
    "\x06" "init file system"sv,  // 6
    "\x00" "fcb"sv,  // 7
    "Unsupported file version"sv,  // 8
    "\x07" "xdata read malloc"sv,  // 9
    "\x07" "xdata write malloc"sv,  // 10
    "\x00" "read buffer"sv,  // 11
    "\x00" "write buffer"sv,  // 12
    "\x06" "set write buffer"sv,  // 13
    "\x06" "create dxf temp data list"sv,  // 14
    "\x00" "write blocks"sv,  // 15
    "Character not in font"sv,  // 16
    "Font not in table"sv,  // 17
    "\x00" "temp string"sv,  // 18
    "\x06" "open xref temp file"sv,  // 19
    "\x06" "open external reference"sv,  // 20
    "Unsupported file write version"sv,  // 21
    "Unsupported DXF version"sv,  // 22
    "No BMP present in this file"sv,  // 23
    "\x06" "open BMP output file"sv,  // 24
    "No WMF present in this file"sv,  // 25
    "\x06" "open WMF output file"sv,  // 26
    "Disk full"sv,  // 27
    "Not enough memory to draw leader"sv,  // 28
    "Not enough memory to draw spline"sv,  // 29
    "Unexpected end of file"sv,  // 30
    "\x07" "DXF header"sv,  // 31
    "\x07" "DXF entity"sv,  // 32
    "\x07" "DXF table"sv,  // 33
    "\x07" "DXF block"sv,  // 34
    "\x07" "DXF object"sv,  // 35
    "Too many VM page frames"sv,  // 36
    "Too many VM pages"sv,  // 37
    "\x09" "allocate 0 bytes"sv,  // 38
    "Bad vmmalloc magic number"sv,  // 39
    "\x09" "free a null VM pointer"sv,  // 40
    "\x09" "free a free VM pointer"sv,  // 41
    "\x09" "free a non-malloced VM pointer"sv,  // 42
    "Not enough memory to start VM"sv,  // 43
    "VM file write failed"sv,  // 44
    "\x01" "linetypes"sv,  // 45
    "\x01" "layers"sv,  // 46
    "\x01" "classes"sv,  // 47
    "\x01" "vports"sv,  // 48
    "\x01" "ucses"sv,  // 49
    "\x01" "regapps"sv,  // 50
    "\x01" "views"sv,  // 51
    "\x01" "shape files"sv,  // 52
    "\x01" "dimstyles"sv,  // 53
    "\x01" "block headers"sv,  // 54
    "\x01" "entities"sv,  // 55
    "\x01" "objects"sv,  // 56
    "\x00" "memory for file save"sv,  // 57
    "\x08" "writing header"sv,  // 58
    "\x05" "header layer"sv,  // 59
    "\x05" "header linetype"sv,  // 60
    "\x05" "header dimstyle"sv,  // 61
    "\x05" "header ucs"sv,  // 62
    "\x05" "header pspace ucs"sv,  // 63
    "\x05" "header text style"sv,  // 64
    "\x05" "header dim text style"sv,  // 65
    "\x05" "layer"sv,  // 66
    "\x05" "linetype"sv,  // 67
    "\x05" "text style/shape file"sv,  // 68
    "\x05" "dimension style"sv,  // 69
    "\x08" "resolving viewport entities"sv,  // 70
    "\x05" "extended data application index"sv,  // 71
    "\x05" "extended entity layer index"sv,  // 72
    "\x06" "find block for entity read"sv,  // 73
    "No entities found for block"sv,  // 74
    "\x05" "block header"sv,  // 75
    "No linetypes in list"sv,  // 76
    "Linetype not found"sv,  // 77
    "No registered apps in list"sv,  // 78
    "Regapp not found"sv,  // 79
    "No shapefiles in list"sv,  // 80
    "Shapefile not found"sv,  // 81
    "No dimstyles in list"sv,  // 82
    "Dimstyle not found"sv,  // 83
    "No views in list"sv,  // 84
    "View not found"sv,  // 85
    "No viewports in list"sv,  // 86
    "Viewport not found"sv,  // 87
    "No ucss in list"sv,  // 88
    "Ucs not found"sv,  // 89
    "No layers in list"sv,  // 90
    "Layer not found"sv,  // 91
    "No blockheaders in list"sv,  // 92
    "Block header not found"sv,  // 93
    "\x08" "removing purged items"sv,  // 94
    "Dropped shape entity from file"sv,  // 95
    "\x06" "read header block"sv,  // 96
    "\x02" "entity xdata"sv,  // 97
    "\x02" "entity longdata"sv,  // 98
    "\x02" "entity"sv,  // 99
    "\x02" "regapp xdata"sv,  // 100
    "\x02" "regapp"sv,  // 101
    "\x03" "regapp"sv,  // 102
    "\x02" "layer xdata"sv,  // 103
    "\x02" "layer"sv,  // 104
    "\x03" "layer"sv,  // 105
    "\x02" "linetype xdata"sv,  // 106
    "\x02" "linetype"sv,  // 107
    "\x03" "linetype"sv,  // 108
    "\x02" "shapefile xdata"sv,  // 109
    "\x02" "shapefile"sv,  // 110
    "\x03" "shapefile"sv,  // 111
    "\x02" "view xdata"sv,  // 112
    "\x02" "view"sv,  // 113
    "\x03" "view"sv,  // 114
    "\x02" "vport xdata"sv,  // 115
    "\x02" "vport"sv,  // 116
    "\x03" "vport"sv,  // 117
    "\x02" "dimstyle xdata"sv,  // 118
    "\x02" "dimstyle"sv,  // 119
    "\x03" "dimstyle"sv,  // 120
    "\x02" "ucs xdata"sv,  // 121
    "\x02" "ucs"sv,  // 122
    "\x03" "ucs"sv,  // 123
    "\x02" "blockheader xdata"sv,  // 124
    "\x02" "blockheader preview"sv,  // 125
    "\x02" "blockheader"sv,  // 126
    "\x03" "blockheader"sv,  // 127
    "\x05" "header mlstyle"sv,  // 128
    "\x01" "entity list"sv,  // 129
    "\x01" "block entities"sv,  // 130
    "\x08" "resolving header"sv,  // 131
    "\x06" "get current mlstyle"sv,  // 132
    "\x06" "add default objects"sv,  // 133
    "\x06" "malloc for raster file write"sv,  // 134
    "\x07" "raster data"sv,  // 135
    "Unable to allocate VM memory"sv,  // 136
    "Maximum VM memory blocks exceeded"sv,  // 137
    "\x09" "read from non-existent VM block"sv,  // 138
    "File has no BMP"sv,  // 139
    "File has no WMF"sv,  // 140
    "File already has BMP"sv,  // 141
    "File already has WMF"sv,  // 142
    "\x01" "BMP"sv,  // 143
    "\x01" "WMF"sv,  // 144
    "\x08" "on block entity read"sv,  // 145
    "\x08" "flushing object to VM"sv,  // 146
    "\x08" "on layer read start"sv,  // 147
    "\x08" "reading layer"sv,  // 148
    "Couldn't find vpentheader handle"sv,  // 149
    "\x08" "closing file"sv,  // 150
    "\x09" "delete from null list"sv,  // 151
    "Entity not found in list"sv,  // 152
    "Duplicate handle in file"sv,  // 153
    "Incomplete ACIS entry (no image)"sv,  // 154
    "Unexpected end of file in DXF"sv,  // 155
    "Invalid DXF version"sv,  // 156
    "\x00" "blob buffer"sv,  // 157
    "\x08" "writing dictionary object"sv,  // 158
    "\x02" "proxy data"sv,  // 159
    "\x02" "proxy obj IDs"sv,  // 160
    "\x08" "writing proxy object"sv,  // 161
    "\x09" "read from null blob"sv,  // 162
    "\x09" "write to null blob"sv,  // 163
    "No objects in list"sv,  // 164
    "Unknown Xrecord type read"sv,  // 165
    "\x09" "write unknown Xrecord type"sv,  // 166
    "Cannot process large proxy entity"sv,  // 167
    "Did not find object to delete"sv,  // 168
    "\x03" "object"sv,  // 169
    "\x02" "object"sv,  // 170
    "\x06" "find leader dimstyle"sv,  // 171
    "\x09" "add duplicate handle"sv,  // 172
    "Btree error"sv,  // 173
    "\x06" "find tolerance dimstyle"sv,  // 174
    "\x02" "during replace"sv,  // 175
    "No classes in list"sv,  // 176
    "\x02" "class xdata"sv,  // 177
    "\x02" "class"sv,  // 178
    "\x03" "class"sv,  // 179
    "Did not find class to delete"sv,  // 180
    "\x04" "temporary header"sv,  // 181
    "Unable to open init file"sv,  // 182
    "Incorrect init file version"sv,  // 183
    "Header size invalid"sv,  // 184
    "\x07" "header"sv,  // 185
    "Bad DWG info"sv,  // 186
    "Entity invalid"sv,  // 187
    "Block header invalid"sv,  // 188
    "Layer invalid"sv,  // 189
    "Shape file invalid"sv,  // 190
    "Linetype invalid"sv,  // 191
    "View invalid"sv,  // 192
    "UCS invalid"sv,  // 193
    "Viewport invalid"sv,  // 194
    "Registered application invalid"sv,  // 195
    "Dimstyle invalid"sv,  // 196
    "Viewport entity header invalid"sv,  // 197
    "Block entity invalid"sv,  // 198
    "Bad entity"sv,  // 199
    "Bad second header"sv,  // 200
    "Bad object"sv,  // 201
    "Bad class definition"sv,  // 202
    "Object map write error"sv,  // 203
    "No pspace vport (id 1) found"sv,  // 204
    "\x06" "replace objects of different types"sv,  // 205
    "\x04" "parent buffer"sv,  // 206
    "\x04" "codepage buffer"sv,  // 207
    "\x04" "zombie buffer"sv,  // 208
    "\x04" "btree buffer"sv,  // 209
    "\x04" "blob buffer"sv,  // 210
    "\x04" "objhandle buffer"sv,  // 211
    "\x04" "bestentry buffer"sv,  // 212
    "\x04" "vp pointer"sv,  // 213
    "\x00" "vm btnode"sv,  // 214
    "\x00" "vm blob"sv,  // 215
    "\x00" "vm temp memory"sv,  // 216
    "\x00" "vm header"sv,  // 217
    "\x00" "vm llist"sv,  // 218
    "\x00" "vm llalloc"sv,  // 219
    "\x00" "vm linetype"sv,  // 220
    "\x00" "vm blockheader"sv,  // 221
    "\x00" "vm bindata"sv,  // 222
    "\x00" "vm structure"sv,  // 223
    "\x00" "LWPLINE temp storage"sv,  // 224
    "\x00" "hatch data storage"sv,  // 225
    "\x06" "find entity to replace"sv,  // 226
    "\x06" "set current node"sv,  // 227
    "\x08" "on entity add during replace"sv,  // 228
    "\x08" "on vpent list update"sv,  // 229
    "\x06" "create idbuffer class"sv,  // 230
    "\x09" "add NULL objhandle"sv,  // 231
    "\x09" "insert non-existent block"sv,  // 232
    "\x00" "vertex"sv,  // 233
    "\x00" "linetype"sv,  // 234
    "\x00" "shptb"sv,  // 235
    "\x00" "view matrices"sv,  // 236
    "\x00" "skip vertex"sv,  // 237
    "\x00" "point matrix"sv,  // 238
    "\x00" "shape matrices"sv,  // 239
    "\x00" "polyline"sv,  // 240
    "\x00" "pl storage"sv,  // 241
    "\x00" "vert"sv,  // 242
    "\x00" "block"sv,  // 243
    "\x00" "mline type"sv,  // 244
    "\x00" "solmat"sv,  // 245
    "\x00" "ellipse viewmat"sv,  // 246
    "\x00" "mline arcs viewmat"sv,  // 247
    "\x00" "mline arc caps"sv,  // 248
    "\x00" "segltypes"sv,  // 249
    "\x00" "mesh verts"sv,  // 250
    "\x00" "grdata storage"sv,  // 251
    "\x00" "shell verts"sv,  // 252
    "\x00" "shell faces"sv,  // 253
    "\x00" "grshell prims"sv,  // 254
    "\x00" "proxy img viewmat"sv,  // 255
    "\x00" "mline ltype"sv,  // 256
    "\x00" "mline segltypes"sv,  // 257
    "\x00" "text shmat"sv,  // 258
    "\x00" "mtext storage"sv,  // 259
    "\x00" "mtext shma"sv,  // 260
    "\x00" "second vert"sv,  // 261
    "\x00" "vert tempptr"sv,  // 262
    "\x00" "polyarc vert"sv,  // 263
    "\x00" "polymesh vert"sv,  // 264
    "\x00" "polymesh points"sv,  // 265
    "\x00" "polymesh vptr"sv,  // 266
    "\x00" "shp smallindex"sv,  // 267
    "\x00" "shp temp"sv,  // 268
    "\x00" "bigindex temp"sv,  // 269
    "\x00" "bigindex"sv,  // 270
    "\x00" "shp datablock"sv,  // 271
    "\x00" "temp kshd"sv,  // 272
    "\x00" "draw temps"sv,  // 273
    "\x00" "spline stuff"sv,  // 274
    "\x00" "ks3 ctrl blocks"sv,  // 275
    "\x00" "lt shape shmat"sv,  // 276
    "\x06" "find group dictionary"sv,  // 277
    "\x06" "seek group dictionary"sv,  // 278
    "\x06" "add group"sv,  // 279
    "\x06" "read dicitem blob"sv,  // 280
    "\x06" "replace dictionary object"sv,  // 281
    "\x06" "replace entity"sv,  // 282
    "\x06" "seek entity"sv,  // 283
    "\x00" "KT internal data"sv,  // 284
    "\x06" "malloc for raster add"sv,  // 285
    "R14 beta format files are not supported"sv,  // 286
    "Viewport entity with no extended data -- invalid"sv,  // 287
    "\x05" "entity extended data"sv,  // 288
    "\x06" "add entity"sv,  // 289
    "\x06" "add entity handle to index"sv,  // 290
    "\x06" "add viewport entity to list"sv,  // 291
    "Duplicate handle"sv,  // 292
    "\x04" "shapefile"sv,  // 293
    "\x06" "init shfile system"sv,  // 294
    "KT init data must be loaded"sv,  // 295
    "Unable to open font"sv,  // 296
    "Unable to open bigfont"sv,  // 297
    "DXF line too long"sv,  // 298
    "DXF line contains non-numbers"sv,  // 299
    "Bad object handle in header -- possible beta format file"sv,  // 300
    "Probable bad viewport entity header data"sv,  // 301
    "\x07" "viewport entity header"sv,  // 302
    "Handle not found in btree"sv,  // 303
    "Unable to set current node in list"sv,  // 304
    "Unable to get requested item"sv,  // 305
    "Save attempted to incompatible version"sv,  // 306
};

constexpr bool prefixCodesValid()
{
    for (std::string_view m : kMessages)
        if (m.empty() || (static_cast<unsigned char>(m[0]) < 20 && m[0] >= static_cast<char>(kPrefixes.size())))
            return false;
    return true;
}
static_assert(prefixCodesValid(), "every prefix code must name a prefix");

// Long enough for the longest prefix and the longest rest.
char messageBuffer[128];

}  // namespace

const char* ksErrorMessage(int16_t number)
{
    if (number < 0 || number >= ksErrorCount)
        return "Error number out of range";
    std::string_view stored = kMessages[number];
    auto code = static_cast<unsigned char>(stored[0]);
    if (code >= 20)
        return stored.data();  // a whole text, NUL-ended as a literal
    std::string_view prefix = kPrefixes[code];
    std::string_view rest = stored.substr(1);
    std::memcpy(messageBuffer, prefix.data(), prefix.size());
    std::memcpy(messageBuffer + prefix.size(), rest.data(), rest.size());
    messageBuffer[prefix.size() + rest.size()] = '\0';
    return messageBuffer;
}

int16_t ksErrorNumber() { return ksG ? static_cast<int16_t>(ksG->errorNumber) : 0; }

void ksSetError(int16_t number)
{
    if (ksG)
        ksG->errorNumber = number;
}

bool ksAllocFailed(int16_t number)
{
    if (!ksG)
        return false;
    ksG->errorNumber = number;
    if (ksG->errorHandler == nullptr)
        return false;
    ksG->errorHandler(2);
    return true;
}
