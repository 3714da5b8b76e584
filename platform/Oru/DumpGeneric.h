// The generic state dump: an object and what its attributes reach, walked through reflection.
#pragma once

#include "Lumo/Ptr.h"
#include "Oru/DumpContext.h"
#include "Wex/Exception.h"
#include "Wex/PtrInterface.h"

namespace Wex { class WexType; }

namespace Oru {

// Writes a header line "0x... (TypeName)" and then the object's attributes one level in.
void dumpObject(Lumo::Ptr<Wex::PtrInterface const> const& obj, DumpContext& ctx);

namespace Impl {

// Writes the readable attributes of `obj` as `type` lists them (base first, table order), one
// line each, indented two spaces per `depth`:
//   name: <text>
//   child: 0x... (TypeName)            followed by the child's attributes one level deeper
//   peer: ^0x... (TypeName, already shown)
//   members: <count>                   then one line per member: <key> -> <value>
//   broken: <error: ...>               the read threw; the dump goes on
// Counted pointers to objects with a type are followed, as are back pointers (Oru::WeakRef)
// while the context says so; operations and attributes without a reader are skipped. Each
// object is shown once per call (the context keeps the set, see DumpContext::Walk), and nothing
// deeper than its depth limit is walked. `type` null means the object's own fwkType(). Text goes
// out through the context line by line.
void doObjDumpChildPtrGeneric(Lumo::Ptr<Wex::PtrInterface const> const& obj, Wex::WexType const* type,
                              DumpContext& ctx, unsigned depth);
inline void doObjDumpChildPtrGeneric(Lumo::Ptr<Wex::PtrInterface const> const& obj, Wex::WexType const* type,
                                     Lumo::Ptr<DumpContext> const& ctx, unsigned depth) {
    if (!ctx) throw Wex::NullArgumentException("ctx");
    doObjDumpChildPtrGeneric(obj, type, *ctx, depth);
}

} // namespace Impl
} // namespace Oru
