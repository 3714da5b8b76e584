// The generic state dump, and the output buffer and writer it streams through.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Oru/DumpContext.h"
#include "Oru/WeakRef.h"
#include "Termout/DumpStateWriterCallback.h"
#include "Termout/NonBlockingCliTxnBuffer.h"
#include "Wex/Collection.h"
#include "Wex/Type.h"
#include "support/TempFile.h"

namespace {

// A plain value kept in a keyed collection.
struct Score {
    Lumo::String who;
    unsigned points = 0;
    friend bool operator==(Score const&, Score const&) = default;
};
std::string valueToStrep(Score const& s) { return fmt::format("{}={}", s.who, s.points); }
struct ScoreKey {
    Lumo::String const& operator()(Score const& s) const noexcept { return s.who; }
};

class Node;
struct NodeKey {
    Lumo::String const& operator()(Lumo::Ptr<Node> const& n) const noexcept;
};

// A graph node: plain values, a held child, a marked back pointer, keyed members.
class Node : public Wex::PtrInterface {
public:
    explicit Node(Lumo::String name, int w = 0) : weight(w), name_(std::move(name)) {}
    ~Node() override {
        if (gone) *gone = true;
    }
    Lumo::String const& name() const noexcept { return name_; }
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<Node>(); }

    int weight;
    Lumo::Ptr<Node> child;
    Node const* parent = nullptr;
    Wex::Collection<Lumo::String, Lumo::Ptr<Node>, NodeKey> members{"members", 1};
    Wex::Collection<Lumo::String, Score, ScoreKey> scores{"scores", 2};
    bool fragile = false;
    std::function<void()> onProbe;
    bool* gone = nullptr;

private:
    Lumo::String name_;
};
Lumo::String const& NodeKey::operator()(Lumo::Ptr<Node> const& n) const noexcept { return n->name(); }

class Leaf : public Node {
public:
    using Node::Node;
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<Leaf>(); }
    Lumo::String colour = "green";
};

// Counted but of no type the dump knows.
class Opaque : public Wex::PtrInterface {};

Wex::WexModuleRegistrar registrar("tests/Dump", [](Wex::WexModule& m) {
    m.type<Node>("DumpTest::Node")
        .readOnly("name", [](Node const& n) { return n.name(); })
        .readOnly("weight", [](Node const& n) { return n.weight; })
        .operation("poke", {}, [](Node&, Wex::Args const&) {})
        .readOnly("child", [](Node const& n) { return n.child; })
        .readOnly("parent", [](Node const& n) { return Oru::WeakRef(n.parent); })
        .collection("members", [](Node const& n) -> auto const& { return n.members; })
        .collection("scores", [](Node const& n) -> auto const& { return n.scores; })
        .hidden("secret", Wex::AttrKind::attribute)
        .readOnly("fragile", [](Node const& n) {
            if (n.fragile) throw std::runtime_error("sensor unplugged");
            return true;
        })
        .readOnly("probe", [](Node const& n) {
            if (n.onProbe) n.onProbe();
            return 0;
        });
    m.type<Leaf>("DumpTest::Leaf").base<Node>().readOnly("colour", [](Leaf const& l) { return l.colour; });
});

Lumo::Ptr<Node> node(char const* name, int weight = 0) { return Lumo::Ptr<Node>(new Node(name, weight)); }
std::string addr(void const* p) { return fmt::format("{}", p); }

std::vector<std::string> lines(std::string const& text) {
    std::vector<std::string> out;
    std::size_t start = 0;
    for (std::size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        out.push_back(text.substr(start, nl - start));
    EXPECT_EQ(start, text.size()) << "text does not end with a complete line";
    return out;
}

std::size_t occurrences(std::string const& text, std::string const& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

std::string readAll(int fd) {
    std::string out;
    char chunk[65536];
    for (ssize_t r; (r = ::read(fd, chunk, sizeof chunk)) != 0;) {
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) throw std::runtime_error("read failed");
        out.append(chunk, static_cast<std::size_t>(r));
    }
    return out;
}

// A pipe whose read end another thread drains until the write end closes.
class DrainedPipe {
public:
    DrainedPipe() {
        if (::pipe(fds_) != 0) throw std::runtime_error("no pipe");
        reader_ = std::thread([this] { received_ = readAll(fds_[0]); });
    }
    ~DrainedPipe() {
        closeWriteEnd();
        if (reader_.joinable()) reader_.join();
        ::close(fds_[0]);
    }
    int writeFd() const { return fds_[1]; }
    void closeWriteEnd() {
        if (fds_[1] >= 0) ::close(fds_[1]);
        fds_[1] = -1;
    }
    // Everything written, once the write end is closed.
    std::string const& received() {
        closeWriteEnd();
        reader_.join();
        return received_;
    }

private:
    int fds_[2] = {-1, -1};
    std::thread reader_;
    std::string received_;
};

class DumpTest : public ::testing::Test {
protected:
    // Dumps `obj` from depth 0 into a file through a context of its own, and reads it back.
    std::string dump(Lumo::Ptr<Node> const& obj, bool followWeak = true, unsigned level = 0) {
        TempFile file;
        {
            Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(file.fd(), nullptr, level));
            ctx->followWeakReferencesIs(followWeak);
            Oru::Impl::doObjDumpChildPtrGeneric(obj, obj->fwkType(), *ctx, 0);
            shown = ctx->objectsShown();
        }
        return file.contents();
    }
    std::size_t shown = 0;
};

TEST_F(DumpTest, AttributesComeInTableOrderBaseFirstWithoutOperationsOrHiddenOnes) {
    Lumo::Ptr<Leaf> leaf(new Leaf("l", 7));
    leaf->scores.set(Score{"ann", 3});
    std::string const text = dump(leaf);
    EXPECT_EQ(lines(text), (std::vector<std::string>{
                               "name: 'l'",
                               "weight: 7",
                               "child: null",
                               "parent: null",
                               "members: 0",
                               "scores: 1",
                               "  'ann' -> ann=3",
                               "fragile: true",
                               "probe: 0",
                               "colour: 'green'",
                           }));
    EXPECT_EQ(shown, 1u);
}

TEST_F(DumpTest, HeldChildrenAreFollowedOneLevelDeeper) {
    auto root = node("root");
    root->child = node("kid", 1);
    root->child->child = node("grandkid", 2);
    auto const out = lines(dump(root));
    ASSERT_GE(out.size(), 12u);
    EXPECT_EQ(out[2], fmt::format("child: {} (DumpTest::Node)", addr(root->child.ptr())));
    EXPECT_EQ(out[3], "  name: 'kid'");
    EXPECT_EQ(out[5], fmt::format("  child: {} (DumpTest::Node)", addr(root->child->child.ptr())));
    EXPECT_EQ(out[6], "    name: 'grandkid'");
    EXPECT_EQ(out[7], "    weight: 2");
    EXPECT_EQ(out.back(), "probe: 0");
    EXPECT_EQ(shown, 3u);
}

TEST_F(DumpTest, CollectionsShowTheirCountThenEachKeyAndValue) {
    auto root = node("root");
    root->members.set(node("a", 1));
    root->members.set(node("b", 2));
    std::string const text = dump(root);
    auto const out = lines(text);
    EXPECT_NE(std::find(out.begin(), out.end(), "members: 2"), out.end());
    for (char const* name : {"a", "b"}) {
        std::string const entry = fmt::format("  '{}' -> {} (DumpTest::Node)", name, addr(root->members.get(name).ptr()));
        auto at = std::find(out.begin(), out.end(), entry);
        ASSERT_NE(at, out.end()) << text;
        ASSERT_LT(at + 1, out.end());
        EXPECT_EQ(*(at + 1), fmt::format("    name: '{}'", name));
    }
    EXPECT_EQ(shown, 3u);
}

TEST_F(DumpTest, CycleAndBackPointerAreShownOnceAndNotLooped) {
    auto a = node("a");
    auto b = node("b");
    a->child = b;
    b->child = a;
    b->parent = a.ptr();
    std::string const text = dump(a);
    EXPECT_EQ(occurrences(text, "name: 'a'"), 1u);
    EXPECT_EQ(occurrences(text, "name: 'b'"), 1u);
    EXPECT_NE(text.find(fmt::format("  child: ^{} (DumpTest::Node, already shown)\n", addr(a.ptr()))), std::string::npos);
    EXPECT_NE(text.find(fmt::format("  parent: ^{} (DumpTest::Node, already shown)\n", addr(a.ptr()))), std::string::npos);
    EXPECT_EQ(shown, 2u);
    b->child = nullptr;  // break the cycle so both go
}

TEST_F(DumpTest, BackPointersAreFollowedOnlyWhileTheContextSaysSo) {
    auto owner = node("owner");
    auto held = node("held");
    held->parent = owner.ptr();  // owner is reachable only through the back pointer
    std::string const followed = dump(held, true);
    EXPECT_NE(followed.find(fmt::format("parent: {} (DumpTest::Node)\n", addr(owner.ptr()))), std::string::npos);
    EXPECT_NE(followed.find("  name: 'owner'"), std::string::npos);
    std::string const notFollowed = dump(held, false);
    EXPECT_NE(notFollowed.find(fmt::format("parent: {}\n", addr(owner.ptr()))), std::string::npos);
    EXPECT_EQ(notFollowed.find("owner"), std::string::npos);
    EXPECT_EQ(shown, 1u);
}

TEST_F(DumpTest, AReadThatThrowsIsReportedAndTheDumpGoesOn) {
    auto root = node("root");
    root->fragile = true;
    root->child = node("kid");
    root->child->fragile = true;
    std::string const text = dump(root);
    EXPECT_NE(text.find("\nfragile: <error: sensor unplugged>\nprobe: 0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n  fragile: <error: sensor unplugged>\n  probe: 0\n"), std::string::npos) << text;
}

TEST_F(DumpTest, WalkStopsAtTheDepthLimitOrTheDumpLevel) {
    auto root = node("n0");
    Node* last = root.ptr();
    for (int i = 1; i < 100; ++i) last = (last->child = node("n", i)).ptr();
    std::string const full = dump(root);
    EXPECT_EQ(occurrences(full, "name: "), Oru::DumpContext::kDepthLimit + 1);
    EXPECT_EQ(occurrences(full, "(DumpTest::Node, not shown: depth limit)"), 1u);
    std::string const shallow = dump(root, true, 3);
    EXPECT_EQ(occurrences(shallow, "name: "), 4u);
    EXPECT_EQ(occurrences(shallow, "not shown: depth limit"), 1u);
}

TEST_F(DumpTest, ThousandsOfObjectsAreEachWalkedOnce) {
    auto root = node("root");
    auto shared = node("shared");
    for (int i = 0; i < 5000; ++i) {
        auto m = node(fmt::format("m{}", i).c_str(), i);
        m->child = shared;
        m->parent = root.ptr();
        root->members.set(m);
    }
    std::string const text = dump(root);
    EXPECT_EQ(shown, 5002u);
    EXPECT_EQ(occurrences(text, "name: "), 5002u);
    // Every member's child but the first, and every member's back pointer.
    EXPECT_EQ(occurrences(text, "already shown"), 4999u + 5000u);
}

TEST_F(DumpTest, AnObjectOfAnotherTypeOrWithoutOneIsRefused) {
    auto n = node("n");
    TempFile file;
    {
        Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(file.fd(), nullptr, 0));
        Oru::Impl::doObjDumpChildPtrGeneric(n, Wex::wexTypeOf<Leaf>(), *ctx, 0);
        Oru::Impl::doObjDumpChildPtrGeneric(Lumo::Ptr<Opaque>(new Opaque), nullptr, *ctx, 0);
        EXPECT_EQ(ctx->objectsShown(), 0u);
    }
    auto const out = lines(file.contents());
    ASSERT_EQ(out.size(), 2u);
    EXPECT_TRUE(out[0].starts_with("<error: ")) << out[0];
    EXPECT_EQ(out[1], "<no type table>");
}

TEST_F(DumpTest, DumpObjectWritesAHeaderThenTheAttributes) {
    auto n = node("n");
    TempFile file;
    {
        Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(file.fd(), nullptr, 0));
        Oru::dumpObject(n, *ctx);
    }
    auto const out = lines(file.contents());
    ASSERT_GE(out.size(), 2u);
    EXPECT_EQ(out[0], fmt::format("{} (DumpTest::Node)", addr(n.ptr())));
    EXPECT_EQ(out[1], "  name: 'n'");
}

TEST_F(DumpTest, OutputStreamsThroughTheWriterWhileTheDumpRuns) {
    auto root = node("root");
    for (int i = 0; i < 2000; ++i) root->members.set(node(fmt::format("member{}", i).c_str(), i));
    std::string const expected = dump(root);

    DrainedPipe pipe;
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> buffer(new Termout::NonBlockingCliTxnBuffer(pipe.writeFd(), 4096));
    std::uint64_t writtenAtProbe = 0;
    root->onProbe = [&] { writtenAtProbe = buffer->bytesWritten(); };  // read after the members
    {
        Lumo::Ptr<Termout::DumpStateWriterCallback> writer(new Termout::DumpStateWriterCallback(buffer));
        writer->hasNotificationActiveIs(true);
        Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(-1, nullptr, 0));
        ctx->writerIs(writer);
        Oru::Impl::doObjDumpChildPtrGeneric(root, root->fwkType(), *ctx, 0);
        ctx->flush();
    }
    EXPECT_GT(writtenAtProbe, expected.size() / 2);
    EXPECT_EQ(buffer->bytesWritten(), expected.size());
    EXPECT_EQ(pipe.received(), expected);
}

// A chain root -> n1 -> ... -> n4 -> root, n4 also a member of root (met first past a depth
// limit of 3 through the chain, then shown through the collection), and a read that throws.
std::vector<Lumo::Ptr<Node>> tangle() {
    std::vector<Lumo::Ptr<Node>> all{node("root")};
    for (int i = 1; i <= 4; ++i) all.push_back(all.back()->child = node("n", i));
    all[0]->members.set(all[4]);
    all[2]->fragile = true;
    all[4]->child = all[0];
    return all;
}

// The set of objects shown lasts one call: a call through the same context, one after a walk
// that an exception ended, and one through a new context all show everything again.
TEST_F(DumpTest, EachCallShowsEverythingAgainWhateverEndedTheLastOne) {
    auto const all = tangle();
    std::string const expected = dump(all[0], true, 3);
    EXPECT_EQ(shown, all.size());
    EXPECT_EQ(occurrences(expected, "(DumpTest::Node, not shown: depth limit)"), 1u);

    TempFile file;
    Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(file.fd(), nullptr, 3));
    for (int round = 0; round < 2; ++round) {
        Oru::Impl::doObjDumpChildPtrGeneric(all[0], nullptr, *ctx, 0);
        ctx->flush();
        EXPECT_EQ(file.fresh(), expected) << "round " << round;
    }
    EXPECT_THROW(
        {
            Oru::DumpContext::Walk const walk(*ctx);
            Oru::Impl::doObjDumpChildPtrGeneric(all[0], nullptr, *ctx, 0);
            throw std::runtime_error("caller gave up midway");
        },
        std::runtime_error);
    ctx->flush();
    file.fresh();
    Oru::Impl::doObjDumpChildPtrGeneric(all[0], nullptr, *ctx, 0);
    ctx->flush();
    EXPECT_EQ(file.fresh(), expected);
    EXPECT_EQ(ctx->objectsShown(), 4 * all.size());
    EXPECT_EQ(dump(all[0], true, 3), expected);
    all[4]->child = nullptr;
}

// A getter that dumps while a dump runs: through another context the inner dump is complete and
// the outer one goes on untouched; through the same context the inner walk shares the set, so
// what the outer showed reads as already shown and stays so after the inner walk ends.
TEST_F(DumpTest, DumpsMadeWhileAnotherRunsKeepToTheirOwnContext) {
    auto root = node("root");
    auto a = node("a");
    auto b = node("b");
    root->members.set(a);
    root->members.set(b);
    b->child = a;
    std::string const expected = dump(root);

    TempFile file;
    Lumo::Ptr<Oru::DumpContext> ctx(new Oru::DumpContext(file.fd(), nullptr, 0));
    std::string inner;
    bool inside = false;
    a->onProbe = [&] {
        if (inside) return;
        inside = true;
        inner = dump(root);
        ctx->flush();
        std::size_t const before = file.contents().size();
        Oru::Impl::doObjDumpChildPtrGeneric(root, nullptr, *ctx, 0);
        ctx->flush();
        EXPECT_EQ(file.contents().substr(before), fmt::format("^{} (DumpTest::Node, already shown)\n", addr(root.ptr())));
        inside = false;
    };
    Oru::Impl::doObjDumpChildPtrGeneric(root, nullptr, *ctx, 0);
    ctx->flush();
    EXPECT_EQ(inner, expected);
    std::string const outer = file.contents();
    std::string const nested = fmt::format("^{} (DumpTest::Node, already shown)\n", addr(root.ptr()));
    ASSERT_EQ(occurrences(outer, nested), 1u) << outer;
    std::string withoutNested = outer;
    withoutNested.erase(outer.find(nested), nested.size());
    EXPECT_EQ(withoutNested, expected);
    EXPECT_EQ(ctx->objectsShown(), 3u);
    a->onProbe = nullptr;
}

// The set remembers addresses and holds nothing: an object dropped by a getter while the walk
// goes on is freed at once.
TEST_F(DumpTest, AWalkKeepsNoObjectAlive) {
    auto root = node("root");
    bool kidGone = false, goneAtProbe = false;
    root->child = node("kid");
    root->child->gone = &kidGone;
    root->onProbe = [&] {
        root->child = nullptr;
        goneAtProbe = kidGone;
    };
    std::string const text = dump(root);
    EXPECT_NE(text.find("  name: 'kid'"), std::string::npos);
    EXPECT_TRUE(goneAtProbe);
    EXPECT_EQ(shown, 2u);
}

// ---- the output buffer and the writer ----

void writeLargeOutput(Termout::NonBlockingCliTxnBuffer& buffer, std::string& sent) {
    // Pieces of uneven sizes, some larger than the buffer, numbered so that order shows.
    for (std::size_t i = 0; sent.size() < 6 * 1024 * 1024; ++i) {
        std::string piece = fmt::format("{:08}:", i);
        piece.append((i * 7919) % (i % 50 == 0 ? 200'000 : 3000), char('a' + i % 26));
        piece.push_back('\n');
        buffer.write(piece);
        sent += piece;
        EXPECT_LE(buffer.buffered(), buffer.capacity());
    }
    EXPECT_TRUE(buffer.flush());
}

TEST(CliTxnBuffer, LargeOutputThroughABlockingPipeArrivesCompleteInOrder) {
    DrainedPipe pipe;
    std::string sent;
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> buffer(new Termout::NonBlockingCliTxnBuffer(pipe.writeFd()));
    writeLargeOutput(*buffer, sent);
    EXPECT_EQ(buffer->bytesWritten(), sent.size());
    EXPECT_EQ(pipe.received(), sent);
}

TEST(CliTxnBuffer, LargeOutputThroughANonBlockingPipeWaitsWhenItIsFull) {
    DrainedPipe pipe;
    ASSERT_EQ(::fcntl(pipe.writeFd(), F_SETFL, ::fcntl(pipe.writeFd(), F_GETFL) | O_NONBLOCK), 0);
    std::string sent;
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> buffer(new Termout::NonBlockingCliTxnBuffer(pipe.writeFd(), 1000));
    writeLargeOutput(*buffer, sent);
    EXPECT_EQ(buffer->error(), 0);
    EXPECT_EQ(pipe.received(), sent);
}

TEST(CliTxnBuffer, OutputIsHeldUntilTheBufferFillsThenGoesOut) {
    TempFile file;
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> buffer(new Termout::NonBlockingCliTxnBuffer(file.fd(), 10));
    buffer->write("abcdef");
    EXPECT_EQ(buffer->buffered(), 6u);
    EXPECT_EQ(buffer->bytesWritten(), 0u);
    EXPECT_EQ(file.contents(), "");
    buffer->write("ghijkl");
    EXPECT_EQ(buffer->bytesWritten(), 10u);
    EXPECT_EQ(buffer->buffered(), 2u);
    EXPECT_TRUE(buffer->flush());
    EXPECT_EQ(file.contents(), "abcdefghijkl");
}

TEST(CliTxnBuffer, AReaderThatWentAwayEndsTheOutputWithoutASignal) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[0]);
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> buffer(new Termout::NonBlockingCliTxnBuffer(fds[1], 16));
    buffer->write("nobody reads this");
    EXPECT_FALSE(buffer->flush());
    EXPECT_EQ(buffer->error(), EPIPE);
    buffer->write("nor this");
    EXPECT_EQ(buffer->buffered(), 0u);
    EXPECT_EQ(buffer->bytesWritten(), 0u);
    ::close(fds[1]);
}

TEST(CliTxnBuffer, ADescriptorThatTakesNothingEndsTheOutputAsStalled) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ASSERT_EQ(::fcntl(fds[1], F_SETFL, O_NONBLOCK), 0);
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> buffer(new Termout::NonBlockingCliTxnBuffer(fds[1], 4096, 0));
    std::string const block(4096, 'x');
    for (int i = 0; i < 1024 && buffer->error() == 0; ++i) buffer->write(block);
    EXPECT_EQ(buffer->error(), ETIMEDOUT);
    EXPECT_GT(buffer->bytesWritten(), 0u);  // what the pipe took
    EXPECT_FALSE(buffer->flush());
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST(CliTxnBuffer, WriterPassesTextOnlyWhileSwitchedOnAndFlushesWhenSwitchedOff) {
    TempFile file;
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> buffer(new Termout::NonBlockingCliTxnBuffer(file.fd()));
    Lumo::Ptr<Termout::DumpStateWriterCallback> writer(new Termout::DumpStateWriterCallback(buffer));
    writer->write("dropped ");
    EXPECT_EQ(buffer->buffered(), 0u);
    writer->hasNotificationActiveIs(true);
    writer->write("kept");
    EXPECT_EQ(file.contents(), "");
    writer->hasNotificationActiveIs(false);
    EXPECT_EQ(file.contents(), "kept");
}

TEST(CliTxnBuffer, BadConstructionIsRefused) {
    using Termout::NonBlockingCliTxnBuffer;
    EXPECT_THROW(Lumo::Ptr<NonBlockingCliTxnBuffer>(new NonBlockingCliTxnBuffer(-1)), Wex::RangeException);
    EXPECT_THROW(Lumo::Ptr<NonBlockingCliTxnBuffer>(new NonBlockingCliTxnBuffer(1, 0)), Wex::RangeException);
    EXPECT_THROW(Lumo::Ptr<Termout::DumpStateWriterCallback>(new Termout::DumpStateWriterCallback(nullptr)),
                 Wex::NullArgumentException);
    EXPECT_THROW(Lumo::Ptr<Oru::DumpContext>(new Oru::DumpContext(-2, nullptr, 0)), Wex::RangeException);
}

} // namespace
