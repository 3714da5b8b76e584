// Oru::DumpContext: routing dump text, the set of objects shown, and the context's type table.
#include "Oru/DumpContext.h"

#include "Wex/Type.h"

namespace Oru {

DumpContext::DumpContext(int fd, CompressedFile* compressedFile, unsigned level)
    : fd_(fd), compressedFile_(compressedFile), level_(level) {
    if (fd < -1) throw Wex::RangeException("fd", "is neither a file descriptor nor -1");
    if (fd >= 0) fdBuffer_ = new Termout::NonBlockingCliTxnBuffer(fd);
}

void DumpContext::write(std::string_view text) noexcept {
    if (writer_) writer_->write(text);
    else if (fdBuffer_) fdBuffer_->write(text);
}

void DumpContext::flush() noexcept {
    if (writer_) writer_->buffer()->flush();
    else if (fdBuffer_) fdBuffer_->flush();
}

DumpContext::Walk::Walk(DumpContext& ctx) noexcept : ctx_(ctx) {
    if (ctx_.openWalks_++ == 0) ctx_.shown_.clear();
}

// clear() gives a large table back to the heap: a context kept between dumps holds nothing.
DumpContext::Walk::~Walk() {
    if (--ctx_.openWalks_ == 0) ctx_.shown_.clear();
}

// Every object is remembered, also one that a single counted pointer holds: two attributes
// may hand out that same pointer, and the second must read as already shown.
bool DumpContext::visitedIs(Wex::PtrInterface const* object) {
    if (shown_.find(object) != Shown::npos) return false;
    // reserve() takes the smallest table that holds one more, twice the full one; insertNew's
    // own growth asks room for twice the members and so takes four times the table.
    shown_.reserve(shown_.size() + 1);
    shown_.insertNew(object);
    ++objectsShown_;
    return true;
}

Wex::WexType const* DumpContext::fwkType() const noexcept { return Wex::wexTypeOf<DumpContext>(); }

namespace {
Wex::WexModuleRegistrar registrar("Oru/DumpContext", [](Wex::WexModule& m) {
    m.type<DumpContext>("Oru::DumpContext")
        .readOnly("fd", [](DumpContext const& c) { return c.fd(); })
        .readOnly("level", [](DumpContext const& c) { return c.level(); })
        .readOnly("followWeakReferences", [](DumpContext const& c) { return c.followWeakReferences(); })
        .readOnly("objectsShown", [](DumpContext const& c) { return c.objectsShown(); });
});
} // namespace

} // namespace Oru
