#pragma once
// The closed catalogue of the views extracta is asked for, their names (used in
// file names and traces; names are produced, never parsed) and the sets in
// which a run's selection travels.

#include <cstdint>

#include "core/AString.h"
#include "core/EnumSet.h"

enum ViewType : int32_t {
  kLayer = 0,          // "layer": layer stack-up
  kPadDef = 1,         // "paddef": pad definitions
  kFullGeo = 2,        // "fullgeo": full geometry
  kConn = 3,           // "conn": connectivity
  kCFullGeo = 4,       // "cfullgeo": full geometry, reduced fields (cell mode)
  kCConn = 5,          // "cconn": connectivity, cell mode
  kDieStack = 6,       // "diestack": die stack definitions
  kNet = 7,            // "net": nets
  kComponent = 8,      // "component": components
  kOutline = 9,        // "outline": outline geometry
  kCompositePad = 10,  // "compositepad": composite pads
  kLogicalPin = 11,    // "logicalpin": logical pins
};

constexpr int kViewTypeCount = 12;

// Indexed by ViewType value.
extern const AString kViewTypeNames[kViewTypeCount];

// The name of a view type; an invalid type is reported and gives "".
AString ViewTypeName(ViewType type);

using ViewSet = EnumSet<ViewType, kViewTypeCount>;

extern const ViewSet kStandardViews;       // 0xFCF: the default selection
extern const ViewSet kCellViews;           // 0x71: layer, cfullgeo, cconn, diestack
extern const ViewSet kLayerNetViews;       // 0x81: layer, net
extern const ViewSet kNetFilterableViews;  // 0x3C: views that net filters apply to

// One produced view: its type and the full path of its view file.
struct ActiveView {
  ViewType viewType;
  AString path;

  friend bool operator==(const ActiveView& a, const ActiveView& b) {
    return a.viewType == b.viewType && a.path == b.path;
  }
};
