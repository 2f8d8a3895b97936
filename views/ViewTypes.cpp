#include "views/ViewTypes.h"

#include "core/VelAssert.h"

#define VEL_ASSERT_SOURCE "ExtractaViewControl"

namespace {

// Plain character literals, so ViewTypeName works from any other translation
// unit's start-up code, before kViewTypeNames has been constructed.
constexpr const wchar_t* kNameLiterals[kViewTypeCount] = {
    L"layer",    L"paddef", L"fullgeo",   L"conn",    L"cfullgeo",     L"cconn",
    L"diestack", L"net",    L"component", L"outline", L"compositepad", L"logicalpin",
};

}  // namespace

const AString kViewTypeNames[kViewTypeCount] = {
    kNameLiterals[0], kNameLiterals[1], kNameLiterals[2],  kNameLiterals[3],
    kNameLiterals[4], kNameLiterals[5], kNameLiterals[6],  kNameLiterals[7],
    kNameLiterals[8], kNameLiterals[9], kNameLiterals[10], kNameLiterals[11],
};

AString ViewTypeName(ViewType type) {
  const int index = static_cast<int>(type);
  VEL_ASSERT(index >= 0 && index < kViewTypeCount);
  if (index < 0 || index >= kViewTypeCount) return AString();
  return AString(kNameLiterals[index]);
}

// Constant-initialised (EnumSet's mask constructor is constexpr): valid before
// any dynamic initialisation runs.
const ViewSet kStandardViews(0xFCF);
const ViewSet kCellViews(0x71);
const ViewSet kLayerNetViews(0x81);
const ViewSet kNetFilterableViews(0x3C);
