// Termout::DumpStateWriterCallback: forwarding dump text to an output buffer.
#include "Termout/DumpStateWriterCallback.h"

#include "Wex/Type.h"

namespace Termout {

DumpStateWriterCallback::DumpStateWriterCallback(Lumo::Ptr<NonBlockingCliTxnBuffer> buffer)
    : buffer_(std::move(buffer)) {
    if (!buffer_) throw Wex::NullArgumentException("buffer");
}

DumpStateWriterCallback::~DumpStateWriterCallback() { hasNotificationActiveIs(false); }

void DumpStateWriterCallback::write(std::string_view text) noexcept {
    if (notificationActive()) buffer_->write(text);
}

void DumpStateWriterCallback::hasNotificationActiveIs(bool active) {
    bool const wasActive = notificationActive();
    PtrInterface::hasNotificationActiveIs(active);
    if (wasActive && !active) buffer_->flush();
}

Wex::WexType const* DumpStateWriterCallback::fwkType() const noexcept {
    return Wex::wexTypeOf<DumpStateWriterCallback>();
}

namespace {
Wex::WexModuleRegistrar registrar("Termout/DumpStateWriterCallback", [](Wex::WexModule& m) {
    m.type<DumpStateWriterCallback>("Termout::DumpStateWriterCallback")
        .readOnly("buffer", [](DumpStateWriterCallback const& w) { return w.buffer(); });
});
} // namespace

} // namespace Termout
