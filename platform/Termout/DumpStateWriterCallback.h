// Termout::DumpStateWriterCallback: where a state dump writes its text.
#pragma once

#include <string_view>

#include "Lumo/Ptr.h"
#include "Termout/NonBlockingCliTxnBuffer.h"
#include "Wex/PtrInterface.h"

namespace Termout {

// Passes a dump's text to a command's output buffer while notification is on; text written
// while it is off is dropped. Switching it off (and destruction) flushes the buffer.
class DumpStateWriterCallback : public Wex::PtrInterface {
public:
    // A null buffer is a Wex::NullArgumentException.
    explicit DumpStateWriterCallback(Lumo::Ptr<NonBlockingCliTxnBuffer> buffer);

    Lumo::Ptr<NonBlockingCliTxnBuffer> const& buffer() const noexcept { return buffer_; }
    void write(std::string_view text) noexcept;

    void hasNotificationActiveIs(bool active) override;
    Wex::WexType const* fwkType() const noexcept override;

protected:
    ~DumpStateWriterCallback() override;

private:
    Lumo::Ptr<NonBlockingCliTxnBuffer> buffer_;
};

} // namespace Termout
