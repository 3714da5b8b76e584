// Oru::DumpContext: where a state dump writes, how far it goes, and what it has shown.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

#include "Lumo/Ptr.h"
#include "Termout/DumpStateWriterCallback.h"
#include "Termout/NonBlockingCliTxnBuffer.h"
#include "Wex/Collection.h"
#include "Wex/PtrInterface.h"

namespace Oru {

// A compressed dump file of a caller that keeps one; this library only passes it along.
struct CompressedFile;

// One dump. Text goes to the writer when one is given, else to `fd` (through a buffer of
// its own), else nowhere. A walk from one root shows each object once and never loops.
class DumpContext : public Wex::PtrInterface {
public:
    static constexpr unsigned kDepthLimit = 64;

    // `level` is the deepest depth a walk goes to, 0 meaning kDepthLimit (which also caps
    // it). `fd` -1 means no descriptor; any other negative one is a Wex::RangeException.
    DumpContext(int fd, CompressedFile* compressedFile, unsigned level);

    int fd() const noexcept { return fd_; }
    CompressedFile* compressedFile() const noexcept { return compressedFile_; }
    unsigned level() const noexcept { return level_; }
    unsigned depthLimit() const noexcept { return level_ == 0 || level_ > kDepthLimit ? kDepthLimit : level_; }

    Lumo::Ptr<Termout::DumpStateWriterCallback> const& writer() const noexcept { return writer_; }
    void writerIs(Lumo::Ptr<Termout::DumpStateWriterCallback> writer) noexcept { writer_ = std::move(writer); }

    // Whether attributes marked as back pointers (Oru::WeakRef values) are followed. Other
    // plain pointers are never followed, as reflection shows them as addresses already; so
    // the option matters only for attributes marked that way. On by default; the dump
    // command switches it off to show each object under its owner alone.
    bool followWeakReferences() const noexcept { return followWeakReferences_; }
    void followWeakReferencesIs(bool follow) noexcept { followWeakReferences_ = follow; }

    void write(std::string_view text) noexcept;
    // Hands what is buffered to the descriptor (the writer's buffer, or the context's own).
    void flush() noexcept;

    // The objects shown by the walk under way, kept here rather than in the objects so that
    // two dumps never see each other's. The set lasts one walk (one call of
    // Impl::doObjDumpChildPtrGeneric): it is emptied when the outermost Walk opens and when it
    // closes, however it closes, so each call shows every object once and the next call
    // through the same context shows them all again. A walk opened inside another on the
    // same context (from a getter) shares its set, as both write to the same text. Objects
    // are remembered by address and not held: one that goes during the walk is freed at once,
    // and another made at its address reads as already shown (getters hand out the objects
    // they hold, so a walk meets no such newcomer). The set takes 12 to 24 bytes per object
    // shown, and half as much again for the moment its table doubles.
    class Walk {
    public:
        explicit Walk(DumpContext& ctx) noexcept;
        ~Walk();
        Walk(Walk const&) = delete;
        Walk& operator=(Walk const&) = delete;

    private:
        DumpContext& ctx_;
    };

    // Records `object` as shown; false when it was shown already in this walk.
    bool visitedIs(Wex::PtrInterface const* object);
    bool visited(Wex::PtrInterface const* object) const noexcept { return shown_.find(object) != Shown::npos; }
    // Objects shown over the context's whole life, all walks together.
    std::size_t objectsShown() const noexcept { return objectsShown_; }

    Wex::WexType const* fwkType() const noexcept override;

protected:
    // The context's own buffer flushes as it goes.
    ~DumpContext() override = default;

private:
    using Shown = Wex::detail::FlatSet<Wex::PtrInterface const*, std::hash<Wex::PtrInterface const*>, std::equal_to<>>;

    int fd_;
    CompressedFile* compressedFile_;
    unsigned level_;
    bool followWeakReferences_ = true;
    Lumo::Ptr<Termout::DumpStateWriterCallback> writer_;
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> fdBuffer_;
    Shown shown_;
    unsigned openWalks_ = 0;
    std::size_t objectsShown_ = 0;
};

} // namespace Oru

#include "Oru/DumpGeneric.h"
