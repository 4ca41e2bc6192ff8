// The Python module `korvex`: the frame side of the library for Python programs. read_frames walks a
// recording with the tools' own walk (kxc::Walker, over the file or a private copy of the bytes) and frame steps
// (decryption, user-data analysis with split containers joined across frames), and a frame's user data
// is korvex-dump's JSON object for it, turned into Python data. The GIL is released while the library works on a buffer.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits.h>

#include <memory>
#include <string>
#include <vector>

#include <pybind11/eval.h>
#include <pybind11/pybind11.h>

#include "core/core.h"
#include "core/report_json.h"
#include "korvex-export/export.h"
#include "stream/frame_header.h"

namespace py = pybind11;

namespace {

using Json = nlohmann::ordered_json;
using kxt::Codec;

// ---------------------------------------------------------------------------------------------------
// Errors: korvex.Error and its subclasses are defined in Python (see the module init) and carry the
// library's negative code and a message.

const char kErrorClasses[] = R"PY(
class Error(Exception):
    """A call of the korvex library failed: `code` is the library's negative result code, `message`
    says what went wrong."""
    def __init__(self, message, code):
        super().__init__(message, code)
        self.message = message
        self.code = code
    def __str__(self):
        return f"{self.message} ({self.code})"

class FrameError(Error):
    """The bytes are no usable frame: an invalid frame header (-102), a frame cut short (-104)."""

class CipherError(Error):
    """The frame cipher refused: an unusable key (-2), a frame that is not encrypted (-3), a frame too
    short for the plain cipher (-104)."""

class WrongKeyError(CipherError):
    """Decryption failed because the key is wrong, or the data is no frame (-4)."""

class ExportError(Error):
    """export() failed: `code` is korvex-export's exit status, 1 for broken input (a broken frame, a wrong
    or missing key, no frame in the range), 2 for bad arguments or files (a container the name doesn't
    give, an output that can't be written)."""

class IndexBlockError(Error):
    """An I-frame index block the library refuses: too short for its head or items (-104), a sign
    type out of range (-100)."""
)PY";

py::object *g_module = nullptr;     // the module, for its error classes
py::object *g_datetime = nullptr;   // datetime.datetime
py::object *g_utc = nullptr;        // datetime.timezone.utc

[[noreturn]] void raise(const char *cls, int code, const std::string &message) {
    py::object type = g_module->attr(cls);
    py::object exc = type(message, code);
    PyErr_SetObject(type.ptr(), exc.ptr());
    throw py::error_already_set();
}

// ---------------------------------------------------------------------------------------------------
// Recordings: a file, read as the walk goes (never mapped, so a file that shrinks meanwhile ends the
// walk with a truncated frame rather than a signal), or a private copy of a bytes-like object (so that
// another thread changing the object while the walk runs without the GIL changes nothing it reads).

[[noreturn]] void throw_os_error(const std::string &path) {
    PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
    throw py::error_already_set();
}

struct Source {
    FILE *file = nullptr;
    std::vector<uint8_t> copy;
    Source() = default;
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;
    ~Source() {
        if (file != nullptr) fclose(file);
    }
};

bool is_path(py::handle source) {
    return py::isinstance<py::str>(source) || PyObject_HasAttrString(source.ptr(), "__fspath__");
}

std::string to_path(py::handle source) {
    return py::module_::import("os").attr("fsdecode")(source).cast<std::string>();
}

// Any of: str or os.PathLike (a path), or a bytes-like object.
std::shared_ptr<Source> open_source(py::handle source) {
    auto s = std::make_shared<Source>();
    if (is_path(source)) {
        std::string path = to_path(source);
        {
            py::gil_scoped_release nogil;
            s->file = fopen(path.c_str(), "rbe");
        }
        if (s->file == nullptr) throw_os_error(path);
        return s;
    }
    Py_buffer view;
    if (PyObject_GetBuffer(source.ptr(), &view, PyBUF_SIMPLE) != 0) {
        PyErr_Clear();
        throw py::type_error("expected a path, bytes or a contiguous buffer, not " +
                             std::string(Py_TYPE(source.ptr())->tp_name));
    }
    const uint8_t *p = static_cast<const uint8_t *>(view.buf);
    s->copy.assign(p, p + view.len);
    PyBuffer_Release(&view);
    return s;
}

// A view of a bytes-like argument for the duration of a call.
class View {
public:
    explicit View(py::handle obj, const char *what) {
        if (PyObject_GetBuffer(obj.ptr(), &view_, PyBUF_SIMPLE) != 0) {
            PyErr_Clear();
            throw py::type_error(std::string(what) + " must be bytes or a contiguous buffer, not " +
                                 Py_TYPE(obj.ptr())->tp_name);
        }
    }
    View(const View &) = delete;
    View &operator=(const View &) = delete;
    ~View() { PyBuffer_Release(&view_); }
    const uint8_t *data() const { return static_cast<const uint8_t *>(view_.buf); }
    size_t size() const { return size_t(view_.len); }
    // The bytes as they are now, taken with the GIL held: what a call that releases the GIL works on.
    std::vector<uint8_t> copy() const { return std::vector<uint8_t>(data(), data() + size()); }

private:
    Py_buffer view_{};
};

// A key: str (UTF-8) or bytes, 1 to 16 bytes; kept in 17 zeroed bytes, since the enhanced cipher reads
// 16 bytes at the key whatever its length.
struct Key {
    bool given = false;
    std::string text;
    unsigned char padded[17] = {0};
};

Key to_key(py::handle key) {
    Key k;
    if (key.is_none()) return k;
    if (py::isinstance<py::str>(key)) {
        k.text = key.cast<std::string>();
    } else {
        View v(key, "key");
        k.text.assign(reinterpret_cast<const char *>(v.data()), v.size());
    }
    if (k.text.empty() || k.text.size() > 16) raise("CipherError", -2, "a key has 1 to 16 bytes");
    k.given = true;
    memcpy(k.padded, k.text.data(), k.text.size());
    return k;
}

Codec to_codec(const std::string &codec) {
    if (codec == "auto") return Codec::kUnknown;
    if (codec == "h264") return Codec::kH264;
    if (codec == "h265") return Codec::kH265;
    throw py::value_error("codec is 'auto', 'h264' or 'h265', not '" + codec + "'");
}

// The analysis korvex-dump --mask chooses: None keeps the single-frame analysis.
void set_mask(py::handle mask, kxc::AnalysisOptions *o) {
    if (mask.is_none()) return;
    o->two_layout = true;
    if (py::isinstance<py::str>(mask) && mask.cast<std::string>() == "all") {
        o->type = 255;  // every block, whatever the mask says
        o->mask = 0x7FFFFFFF;
        return;
    }
    long long n = 0;
    if (py::isinstance<py::int_>(mask) && !py::isinstance<py::bool_>(mask)) {
        int overflow = 0;
        n = PyLong_AsLongLongAndOverflow(mask.ptr(), &overflow);
        if (overflow != 0) n = 0;
    }
    if (n < 1 || n > 0x7FFFFFFF) throw py::value_error("mask is None, 'all' or a number from 1 to 0x7FFFFFFF");
    o->type = 0;  // any type but 255 lets the mask choose
    o->mask = int(n);
}

int clamp_len(size_t n) { return n > size_t(INT_MAX) ? INT_MAX : int(n); }

// ---------------------------------------------------------------------------------------------------
// JSON to Python: objects become dicts (in order), arrays lists; a "utc" text becomes a datetime in UTC.

py::object utc_time(const std::string &s) {
    int y, mo, d, h, mi, sec;
    char z;
    if (sscanf(s.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c", &y, &mo, &d, &h, &mi, &sec, &z) == 7 && z == 'Z') {
        try {
            return (*g_datetime)(y, mo, d, h, mi, sec, 0, *g_utc);
        } catch (py::error_already_set &) {
            // not a date the datetime type holds: left as the text
        }
    }
    return py::str(s);
}

py::object to_python(const Json &j, bool utc = false) {
    switch (j.type()) {
    case Json::value_t::null: return py::none();
    case Json::value_t::boolean: return py::bool_(j.get<bool>());
    case Json::value_t::number_integer: return py::reinterpret_steal<py::object>(PyLong_FromLongLong(j.get<long long>()));
    case Json::value_t::number_unsigned:
        return py::reinterpret_steal<py::object>(PyLong_FromUnsignedLongLong(j.get<unsigned long long>()));
    case Json::value_t::number_float: return py::float_(j.get<double>());
    case Json::value_t::string: {
        const std::string &s = j.get_ref<const std::string &>();
        if (utc) return utc_time(s);
        // Text from a stream can hold any bytes; invalid UTF-8 is replaced, as korvex-dump does.
        PyObject *u = PyUnicode_DecodeUTF8(s.data(), Py_ssize_t(s.size()), "replace");
        if (u == nullptr) throw py::error_already_set();
        return py::reinterpret_steal<py::object>(u);
    }
    case Json::value_t::array: {
        py::list l(j.size());
        size_t i = 0;
        for (const Json &e : j) l[i++] = to_python(e);
        return std::move(l);
    }
    case Json::value_t::object: {
        py::dict d;
        for (auto it = j.begin(); it != j.end(); ++it) d[py::str(it.key())] = to_python(it.value(), it.key() == "utc");
        return std::move(d);
    }
    default: return py::none();
    }
}

// ---------------------------------------------------------------------------------------------------
// Frames

// The bytes of one frame, owned by the module; the frame's memoryviews point here.
struct FrameBytes {
    std::vector<uint8_t> bytes;
};

struct Frame {
    std::shared_ptr<FrameBytes> buf;
    kxc::FrameReport r;  // flags, encryption and mode as the frame was in the recording
    Codec stream_codec = Codec::kUnknown;  // the stream's codec when the frame was read
    std::string walk_error;                // what the walk found wrong with the frame's extent, if anything
    bool busy = false;

    kxc::Span span() { return kxc::Span{buf->bytes.data(), buf->bytes.size()}; }
    bool has_header() const { return buf->bytes.size() >= KX_FRAME_HEADER_LEN; }
    uint16_t current_flags() const { return has_header() ? fh_flags(buf->bytes.data()) : 0; }
    bool encrypted_on_disk() const { return r.valid && (r.flags & 3) == 2; }
    bool encrypted_now() const { return (current_flags() & 3) == 2; }
};

// Marks an object busy for the length of a call that releases the GIL, so that a second thread can't
// work on the same frame or walk at the same time.
class Busy {
public:
    Busy(bool *flag, const char *what) : flag_(flag) {
        if (*flag_) throw std::runtime_error(std::string(what) + " is in use by another thread");
        *flag_ = true;
    }
    ~Busy() { *flag_ = false; }

private:
    bool *flag_;
};

py::object frame_memoryview(const Frame &f, size_t begin, size_t end) {
    py::object owner = py::cast(f.buf);
    py::object mv = py::reinterpret_steal<py::object>(PyMemoryView_FromObject(owner.ptr()));
    if (!mv) throw py::error_already_set();
    return mv[py::slice(py::int_(begin), py::int_(end), py::none())];
}

const char *decrypt_class(int rc) {
    switch (rc) {
    case -4: return "WrongKeyError";
    case -101: case -102: return "FrameError";
    default: return "CipherError";
    }
}

std::string frame_where(const kxc::FrameReport &r) {
    return "frame " + std::to_string(r.index) + " at offset " + std::to_string(r.offset) + ": ";
}

// Decrypts a frame that was read without a key (or whose key failed) and analyses its user data alone,
// with a fresh record of split containers.
void frame_decrypt(Frame &f, py::handle key_obj) {
    Key key = to_key(key_obj);
    if (!key.given) throw py::type_error("decrypt() needs a key");
    if (!f.r.valid) raise("FrameError", -102, frame_where(f.r) + "invalid frame header");
    Busy busy(&f.busy, "the frame");
    int rc;
    {
        py::gil_scoped_release nogil;
        rc = SA_DecryptOneFrame(f.buf->bytes.data(), clamp_len(std::min(f.r.held, f.buf->bytes.size())), key.padded,
                                int(key.text.size()));
    }
    if (rc == -3) raise("CipherError", rc, frame_where(f.r) + "the frame is not encrypted");
    if (rc != 0) {
        raise(decrypt_class(rc), rc, frame_where(f.r) + (rc == -4 ? "decryption failed: wrong key" : "decryption failed"));
    }
    // The analysis fills a copy, so that another thread reading the frame's report meanwhile sees the
    // old one whole; the copy replaces it with the GIL held.
    kxc::FrameReport r = f.r;
    r.flags = f.current_flags();
    r.error = f.walk_error;
    r.skip = kxc::Skip::kNone;
    r.ud = kxc::UserDataReport();
    {
        py::gil_scoped_release nogil;
        kxc::AnalysisOptions o;
        o.codec = f.stream_codec;
        std::vector<uint8_t> split(sizeof(TUserDataSplitState), 0);
        Codec codec = f.stream_codec;
        kxc::examine_frame(o, f.span(), &r, &codec, split.data(), int(split.size()));
    }
    // The report keeps what the frame was in the recording, and says that it is clear now.
    r.flags = f.r.flags;
    r.encryption = f.r.encryption;
    r.decrypt = kxc::Decrypt::kDone;
    r.decrypt_rc = 0;
    f.r = std::move(r);
}

py::object frame_userdata(const Frame &f) {
    Json j = kxc::frame_json(f.r);
    auto it = j.find("userdata");
    return it == j.end() ? py::none() : to_python(*it);
}

// ---------------------------------------------------------------------------------------------------
// The walk over a recording

struct Walk {
    std::shared_ptr<Source> src;
    std::unique_ptr<kxc::Walker> walker;  // the tools' walk, over the file or the private copy
    kxc::AnalysisOptions o;
    std::vector<uint8_t> split = std::vector<uint8_t>(sizeof(TUserDataSplitState), 0);
    Codec codec = Codec::kUnknown;
    int picture_size[2] = {0, 0};  // of the stream's last sequence parameter set
    bool strict = true;
    bool done = false;
    bool busy = false;

    // The next frame as korvex-dump walks it: the frame's bytes are copied into the Frame, which is
    // decrypted and analysed there; strict raises at a broken one.
    Frame next() {
        if (done) throw py::stop_iteration();
        Busy guard(&busy, "the read_frames iterator");
        Frame f;
        f.buf = std::make_shared<FrameBytes>();
        kxc::FrameReport &r = f.r;
        kxc::Span at;
        bool more;
        {
            py::gil_scoped_release nogil;
            more = walker->next(&r, &at);
        }
        if (!more) {
            done = true;
            throw py::stop_iteration();
        }
        f.walk_error = r.error;
        if (!r.valid) {
            // A broken header keeps its 32 bytes; the last bytes of the input, too few for a header, all.
            f.buf->bytes.assign(at.data, at.data + at.size);
            if (strict) {
                done = true;
                raise("FrameError", r.extent == kxc::Extent::kBadHeader ? -102 : -104, frame_where(r) + r.error);
            }
            bool found;
            {
                py::gil_scoped_release nogil;  // the search for the next sound header
                uint64_t skipped;
                found = walker->advance(&skipped);
            }
            if (!found) done = true;
            return f;
        }
        f.buf->bytes.assign(at.data, at.data + at.size);
        f.stream_codec = codec;
        int rc;
        {
            py::gil_scoped_release nogil;
            rc = kxc::examine_frame(o, f.span(), &r, &codec, split.data(), int(split.size()));
            kxc::keep_picture_size(&r, picture_size);
            uint64_t skipped;
            if (!walker->advance(&skipped)) done = true;
        }
        if (strict && !f.walk_error.empty()) {
            done = true;
            bool truncated = r.extent == kxc::Extent::kTruncated;
            raise("FrameError", truncated ? -104 : -102, frame_where(r) + f.walk_error);
        }
        if (strict && rc != 0) {
            done = true;
            raise(decrypt_class(rc), rc, frame_where(r) + r.error);
        }
        return f;
    }
};

// ---------------------------------------------------------------------------------------------------
// Module functions

py::object probe(py::handle data) {
    std::vector<uint8_t> v = View(data, "data").copy();
    int h264, h265 = 0;
    {
        py::gil_scoped_release nogil;
        h264 = H264_Probe(v.data(), clamp_len(v.size()));
        if (h264 != 1) h265 = H265_Probe(v.data(), clamp_len(v.size()));
    }
    if (h264 == 1) return py::str("h264");
    if (h265 == 1) return py::str("h265");
    return py::none();
}

// The frame argument of encrypt_frame and stream_info: a Frame or a bytes-like object.
std::vector<uint8_t> frame_bytes(py::handle frame) {
    if (py::isinstance<Frame>(frame)) return frame.cast<Frame &>().buf->bytes;
    View v(frame, "frame");
    return std::vector<uint8_t>(v.data(), v.data() + v.size());
}

py::bytes encrypt_frame(py::handle frame, py::handle key_obj, const std::string &mode) {
    if (mode != "plain" && mode != "enhanced") throw py::value_error("mode is 'plain' or 'enhanced', not '" + mode + "'");
    Key key = to_key(key_obj);
    if (!key.given) throw py::type_error("encrypt_frame() needs a key");
    std::vector<uint8_t> out = frame_bytes(frame);
    if (out.size() < KX_FRAME_HEADER_LEN) raise("FrameError", -102, "shorter than a frame header");
    // The encrypting calls only clear flag bits: as a producer does, the state fields of the low byte
    // start at 3, and the call leaves 2 (encrypted, and enhanced or not) where it marks the frame.
    fh_set_flags(out.data(), uint16_t(fh_flags(out.data()) | 0x00FF));
    int rc;
    {
        py::gil_scoped_release nogil;
        rc = mode == "plain" ? SA_EncryptOneFrame(out.data(), clamp_len(out.size()), key.padded, int(key.text.size()))
                             : SA_EncryptOneFrameEx(out.data(), clamp_len(out.size()), key.padded, int(key.text.size()));
    }
    switch (rc) {
    case 0: break;
    case -102: raise("FrameError", rc, "invalid frame header");
    case -104: raise("FrameError", rc, "the frame is shorter than its header says");
    case -2: raise("CipherError", rc, "unusable key");
    default: raise("CipherError", rc, "refused by the cipher");
    }
    return py::bytes(reinterpret_cast<const char *>(out.data()), out.size());
}

py::dict stream_info(py::handle head, py::handle frame) {
    std::vector<uint8_t> h = View(head, "head").copy();
    std::vector<uint8_t> f = frame_bytes(frame);
    // The call reads the 32 header bytes whatever length it is given.
    if (f.size() < KX_FRAME_HEADER_LEN) raise("FrameError", -3, "shorter than a frame header");
    TStreamInfo info;
    memset(&info, 0, sizeof(info));
    int rc;
    {
        py::gil_scoped_release nogil;
        rc = SA_GetStreamInfo(h.data(), clamp_len(h.size()), f.data(), clamp_len(f.size()), &info, sizeof(info));
    }
    if (rc == -3) raise("FrameError", rc, "invalid frame header");
    if (rc == -5) raise("Error", rc, "the stream head block is shorter than 88 bytes");
    if (rc != 0) raise("Error", rc, "refused");
    py::dict d;
    d["head_word0"] = info.iHeadWord0;
    d["head_word2"] = info.iHeadWord2;
    d["head_word4"] = info.iHeadWord4;
    d["frame_info"] = info.iFrameInfo;
    d["frame_attr"] = info.iFrameAttr;
    d["stream_kind"] = info.iStreamKind;
    d["stream_reserved"] = info.iStreamReserved;
    return d;
}

const char *index_error(int rc) {
    switch (rc) {
    case -104: return "the block is too short for its head or for the items its head announces";
    case -100: return "sign type out of range";
    default: return "refused";
    }
}

// Asks the library about a block of one or two items cut from an index: find mode, the wanted match of
// the sign type. False when nothing was found.
bool find_in_window(int sign, const uint8_t *items, uint32_t n, uint32_t width, int wanted, TIFrameInfoQuery *q) {
    uint8_t win[44 + 2 * 80];
    memset(win, 0, 44);
    kxt::Bytes head;
    kxt::put32(head, n);
    kxt::put32(head, width);
    memcpy(win + 32, head.data(), head.size());
    memcpy(win + 44, items, size_t(n) * width);
    memset(q, 0, sizeof(*q));
    q->iWantedOrdinal = wanted;
    q->iRestartCount = -1;  // left so when nothing is found
    int room = sizeof(*q);
    return SA_GetIFrameInfo(sign, win, int(44 + n * width), q, &room) == 0 && q->iRestartCount >= 0;
}

struct IndexMatch {
    long long ordinal;
    TIFrameIndexItem item;
    long long restarts;
};

// Every match of the sign type in table order, each with the restarts up to it. The library judges
// every item: alone (its bytes, whether it matches, and whether it counts as a restart at the head of
// a walk) and behind its predecessor (whether the step to it is a restart). The library reads at most
// 80 bytes of an item, so each is cut to that; the whole list costs one pass over the block.
py::list iframe_index(py::handle data, int sign) {
    // The block's counts are read once the GIL is released: they must not change meanwhile.
    std::vector<uint8_t> v = View(data, "data").copy();
    if (sign < 0 || sign > 5) raise("IndexBlockError", -100, "sign type out of range (0 to 5)");
    if (v.size() > size_t(INT_MAX)) raise("IndexBlockError", -104, "too large for an index block");
    std::vector<IndexMatch> found;
    int rc;
    {
        py::gil_scoped_release nogil;
        TIFrameInfoQuery q;
        memset(&q, 0, sizeof(q));
        q.iWantedOrdinal = -1;
        int room = sizeof(q);
        rc = SA_GetIFrameInfo(sign + 100, v.data(), int(v.size()), &q, &room);
        if (rc == 0 && q.iMatchCount > 0) {
            // The library accepted the block: count x item_size bytes of items lie behind the head.
            uint32_t count = kxt::rd32(v.data() + 32), item_size = kxt::rd32(v.data() + 36);
            uint32_t width = item_size < 80 ? item_size : 80;
            uint8_t pair[2 * 80];
            long long restarts = 0, matches = 0;
            int prev_alone = 0;  // the previous item counted as a restart at the head of a walk
            for (uint32_t i = 0; i < count && matches < q.iMatchCount; ++i) {
                const uint8_t *item = v.data() + 44 + size_t(i) * item_size;
                TIFrameInfoQuery alone, step, match;
                find_in_window(0, item, 1, width, 1, &alone);
                if (i == 0) {
                    restarts = alone.iRestartCount;
                } else {
                    memcpy(pair, item - item_size, width);
                    memcpy(pair + width, item, width);
                    find_in_window(0, pair, 2, width, 2, &step);
                    restarts += step.iRestartCount - prev_alone;
                }
                prev_alone = alone.iRestartCount;
                bool hit = sign == 0 || find_in_window(sign, item, 1, width, 1, &match);
                if (hit) found.push_back(IndexMatch{++matches, alone.tItem, restarts});
            }
        }
    }
    if (rc != 0) raise("IndexBlockError", rc, index_error(rc));
    py::list out;
    for (const IndexMatch &f : found) {
        py::dict d;
        d["ordinal"] = f.ordinal;
        d["word"] = f.item.uiItemWord;
        d["stamp"] = f.item.iItemStamp;
        d["mask"] = f.item.uiSignMask;
        d["restarts"] = f.restarts;
        out.append(d);
    }
    return out;
}

// A time of export(): a datetime (naive ones are UTC), an ISO 8601 text as korvex-export takes, or
// seconds since 1970.
int64_t to_time_ms(py::handle t, const char *what) {
    int64_t ms = 0;
    if (py::isinstance(t, *g_datetime)) {
        py::object aware = t.attr("tzinfo").is_none() ? t.attr("replace")(py::arg("tzinfo") = *g_utc) : py::reinterpret_borrow<py::object>(t);
        double secs = aware.attr("timestamp")().cast<double>();
        return int64_t(llround(secs * 1000));
    }
    if (py::isinstance<py::str>(t)) {
        if (kxc::parse_time_ms(t.cast<std::string>(), &ms)) return ms;
    } else if ((py::isinstance<py::int_>(t) || py::isinstance<py::float_>(t)) && !py::isinstance<py::bool_>(t)) {
        double secs = t.cast<double>();
        if (secs >= 0 && secs < 253402300800.0) return int64_t(llround(secs * 1000));
    }
    throw py::value_error(std::string(what) + " is a datetime, an ISO 8601 text such as '2024-05-01T08:00:00Z' or "
                          "seconds since 1970");
}

std::string optional_path(py::handle p) { return p.is_none() ? std::string() : to_path(p); }

py::dict export_recording(py::handle source, py::handle out, py::handle key, py::handle start, py::handle end,
                          py::handle vtt, py::handle csv, py::handle json, py::handle frames, py::handle index,
                          py::handle fps, bool data_track) {
    kxe::ExportOptions o;
    o.output = to_path(out);
    Key k = to_key(key);
    o.analysis.has_key = k.given;
    o.analysis.key = k.text;
    if (!start.is_none()) o.has_from = true, o.from_ms = to_time_ms(start, "start");
    if (!end.is_none()) o.has_to = true, o.to_ms = to_time_ms(end, "end");
    o.vtt = optional_path(vtt);
    o.csv = optional_path(csv);
    o.json = optional_path(json);
    o.index = optional_path(index);
    o.data_track = data_track;
    if (!fps.is_none()) {
        o.fps = fps.cast<double>();
        if (!(o.fps > 0 && o.fps <= 1000)) throw py::value_error("fps is a rate above 0, at most 1000");
    }
    if (!frames.is_none()) {
        auto range = frames.cast<std::pair<py::object, py::object>>();
        o.first = range.first.is_none() ? 0 : range.first.cast<long long>();
        o.last = range.second.is_none() ? -1 : range.second.cast<long long>();
        if (o.first < 0 || (o.last >= 0 && o.last < o.first)) throw py::value_error("frames is (first, last), 0 <= first <= last");
    }
    // A bytes-like source is read from a private copy, as read_frames does.
    std::shared_ptr<Source> src;
    FILE *mem = nullptr;
    if (is_path(source)) {
        o.input = to_path(source);
    } else {
        src = open_source(source);
        o.input = "<bytes>";
        if (!src->copy.empty()) mem = fmemopen(src->copy.data(), src->copy.size(), "rb");
        else mem = fopen("/dev/null", "rb");
        if (mem == nullptr) throw std::bad_alloc();
        o.input_file = mem;
    }
    kxe::ExportResult res;
    int rc;
    {
        py::gil_scoped_release nogil;
        rc = kxe::run_export(o, [](const std::string &) {}, &res);
    }
    if (mem != nullptr) fclose(mem);
    if (!res.written) raise("ExportError", rc, res.message);
    py::dict d;
    d["frames"] = res.frames;
    d["first_frame"] = res.first_index;
    d["last_frame"] = res.last_index;
    d["device_times"] = res.device_times;
    if (res.device_times) {
        d["start"] = (*g_datetime).attr("fromtimestamp")(res.first_ms / 1000.0, *g_utc);
        d["end"] = (*g_datetime).attr("fromtimestamp")(res.last_ms / 1000.0, *g_utc);
    } else {
        d["start"] = res.first_ms / 1000.0;
        d["end"] = res.last_ms / 1000.0;
    }
    d["broken"] = res.broken;
    return d;
}

}  // namespace

PYBIND11_MODULE(korvex, m) {
    m.doc() = "The frame side of the korvex library: read recordings of frames, decrypt them, and get each "
              "frame's user data as Python data (the shape of korvex-dump --json).";
    m.attr("__version__") = KORVEX_VERSION;
    // The library logs refused calls on standard error, keys included; a Python program sees exceptions.
    sdk_log_set_level(0, 0, 0);

    // Each docstring begins with the signature as a reader wants it (the types a caller passes), rather
    // than the generated one, which would name the binding's own C++ types.
    py::options options;
    options.disable_function_signatures();
    py::exec(kErrorClasses, m.attr("__dict__"));
    // Kept for the life of the process: the interpreter may already be gone when statics are destroyed.
    g_module = new py::object(m);
    py::module_ dt = py::module_::import("datetime");
    g_datetime = new py::object(dt.attr("datetime"));
    g_utc = new py::object(dt.attr("timezone").attr("utc"));

    py::class_<FrameBytes, std::shared_ptr<FrameBytes>>(m, "_FrameBytes", py::buffer_protocol(),
                                                        "The bytes of one frame, read-only.")
        .def_buffer([](FrameBytes &b) { return py::buffer_info(b.bytes.data(), py::ssize_t(b.bytes.size()), true); });

    py::class_<Frame>(m, "Frame",
                      "One frame of a recording: its header fields, its bytes, and the user data found in it. "
                      "Made by read_frames(); the frame owns a copy of its bytes.")
        .def_property_readonly("index", [](const Frame &f) { return f.r.index; }, "Position in the recording, from 0.")
        .def_property_readonly("offset", [](const Frame &f) { return f.r.offset; }, "Byte offset in the recording.")
        .def_property_readonly("valid", [](const Frame &f) { return f.r.valid; }, "The frame header is valid.")
        .def_property_readonly("frame_len", [](const Frame &f) { return f.r.frame_len; }, "uiFrameLen: the whole frame, header included.")
        .def_property_readonly("payload_len", [](const Frame &f) { return f.r.payload_len; }, "uiPayloadLen.")
        .def_property_readonly("ext_count", [](const Frame &f) { return f.r.ext_count; }, "usExtCount.")
        .def_property_readonly("ext_size", [](const Frame &f) { return f.r.ext_size; }, "usExtSize.")
        .def_property_readonly("frame_no", [](const Frame &f) { return f.r.frame_no; }, "uiFrameNo, the cipher's counter.")
        .def_property_readonly("attr", [](const Frame &f) { return f.r.attr; }, "ucFrameAttr.")
        .def_property_readonly("info", [](const Frame &f) { return f.r.info; }, "uiFrameInfo.")
        .def_property_readonly("flags", [](const Frame &f) { return f.r.flags; }, "usFrameFlags as read from the recording.")
        .def_property_readonly("held", [](const Frame &f) { return f.r.held; },
                               "Bytes of the frame present in the recording (less than frame_len when cut short).")
        .def_property_readonly("error", [](const Frame &f) { return f.r.error.empty() ? py::object(py::none()) : py::object(py::str(f.r.error)); },
                               "Why the frame is broken, or None (only read_frames(strict=False) yields broken frames).")
        .def_property_readonly("encrypted", &Frame::encrypted_on_disk,
                               "The frame was encrypted in the recording (whether or not it has been decrypted since).")
        .def_property_readonly("mode", [](const Frame &f) -> py::object {
                if (!f.encrypted_on_disk()) return py::none();
                return py::str(((f.r.flags >> 6) & 3) == 2 ? "enhanced" : "plain");
            }, "The cipher mode the frame was encrypted with in the recording, 'plain' or 'enhanced'; None for a "
               "frame that was clear there.")
        .def_property_readonly("decrypted", [](const Frame &f) { return f.encrypted_on_disk() && !f.encrypted_now(); },
                               "The frame was encrypted in the recording and its bytes are clear now.")
        .def_property_readonly("key_frame", [](const Frame &f) { return f.r.clear() && f.r.key_frame; },
                               "The frame's clear payload holds a key picture (H.264 IDR, H.265 IRAP); False while "
                               "it is encrypted.")
        .def_property_readonly("data", [](const Frame &f) { return frame_memoryview(f, 0, f.buf->bytes.size()); },
                               "The frame's bytes, header included: a read-only memoryview, no copy.")
        .def_property_readonly("payload", [](const Frame &f) {
                size_t n = f.buf->bytes.size();
                size_t begin = std::min(n, size_t(KX_FRAME_HEADER_LEN));
                size_t end = f.r.valid ? std::min(n, begin + size_t(f.r.payload_len)) : begin;
                return frame_memoryview(f, begin, end);
            }, "The payload behind the header (uiPayloadLen bytes, as far as present): a read-only memoryview, no copy.")
        .def("decrypt", &frame_decrypt, py::arg("key"),
             "decrypt(self, key: str | bytes) -> None\n\n"
             "Decrypts the frame in place with key (str or bytes, 1 to 16 bytes) and analyses its user data, "
             "alone. Raises WrongKeyError for a wrong key, CipherError for a clear frame or an unusable key.")
        .def("userdata", &frame_userdata,
             "userdata(self) -> dict | None\n\n"
             "The user data of the frame as plain Python data: the 'userdata' object that korvex-dump --json "
             "prints for the frame, with times as datetime in UTC. None for a frame with a broken header.")
        .def("report", [](const Frame &f) { return to_python(kxc::frame_json(f.r)); },
             "report(self) -> dict\n\n"
             "Everything korvex-dump --json prints for the frame, as one dict (times as datetime in UTC).")
        .def("__repr__", [](const Frame &f) {
            return "<korvex.Frame " + std::to_string(f.r.index) + " at " + std::to_string(f.r.offset) + ", " +
                   std::to_string(f.r.frame_len) + " bytes, no " + std::to_string(f.r.frame_no) + ">";
        });

    py::class_<Walk>(m, "FrameReader", "Iterator over the frames of a recording; made by read_frames().")
        .def("__iter__", [](py::object self) { return self; }, "__iter__(self) -> FrameReader\n\nThe iterator itself.")
        .def("__next__", &Walk::next, "__next__(self) -> Frame\n\nThe next Frame; StopIteration at the end of the recording.");

    m.def("read_frames",
          [](py::handle source, py::handle key, const std::string &codec, bool strict, py::handle mask) {
              Walk w;
              set_mask(mask, &w.o);
              w.o.codec = to_codec(codec);
              w.codec = w.o.codec;
              Key k = to_key(key);
              w.o.has_key = k.given;
              w.o.key = k.text;
              w.strict = strict;
              w.src = open_source(source);
              w.walker = w.src->file != nullptr ? std::make_unique<kxc::Walker>(w.src->file)
                                                : std::make_unique<kxc::Walker>(w.src->copy.data(), w.src->copy.size());
              return w;
          },
          py::arg("source"), py::arg("key") = py::none(), py::arg("codec") = "auto", py::arg("strict") = true,
          py::arg("mask") = py::none(),
          "read_frames(source: str | os.PathLike | bytes | bytearray | memoryview, key: str | bytes | None = None, "
          "codec: str = 'auto', strict: bool = True, mask: int | str | None = None) -> FrameReader\n\n"
          "Iterates the frames of a recording, one behind the other, as korvex-dump walks them.\n\n"
          "source is a path (str or os.PathLike), bytes or any contiguous buffer. With key (str or bytes, 1 to "
          "16 bytes) encrypted frames are decrypted, in either mode; without it they are yielded encrypted and "
          "their user data is not analysed. codec is 'auto' (the first frame the probes recognise decides), "
          "'h264' or 'h265'. User data split over consecutive frames is joined.\n\n"
          "strict=True raises at the first broken frame: FrameError for an invalid header (-102), a length that "
          "runs over the next frame header (-102) or a frame cut short (-104), WrongKeyError when the key is "
          "wrong. strict=False yields broken frames with their error set, ends a frame whose length runs over "
          "the next frame header at that header, and after an invalid header searches on for the next valid "
          "one, as korvex-dump does.\n\n"
          "mask chooses the analysis as korvex-dump --mask does: None the single-frame analysis; a number or "
          "'all' the two-layout analysis, for frames that begin with an old (F0) or new (F1) container, "
          "decoding the blocks whose bit is set (bit 0 time, 3 VCA targets, 7 plates, 8 OSD, 15 PTZ, ...).");
    m.def("probe", &probe, py::arg("data"),
          "probe(data: bytes | bytearray | memoryview) -> str | None\n\n"
          "'h264' or 'h265' when the probes of the library recognise data as that Annex B byte stream; None "
          "otherwise.");
    m.def("encrypt_frame", &encrypt_frame, py::arg("frame"), py::arg("key"), py::arg("mode"),
          "encrypt_frame(frame: bytes | bytearray | memoryview | Frame, key: str | bytes, mode: str) -> bytes\n\n"
          "An encrypted copy of a clear frame (bytes-like, or a Frame) as bytes; mode 'plain' or 'enhanced'. "
          "The copy's flag word marks it encrypted in that mode (a plain frame below 96 bytes stays clear). "
          "Raises FrameError for an invalid frame, CipherError when the cipher refuses.");
    m.def("iframe_index", &iframe_index, py::arg("data"), py::arg("sign") = 0,
          "iframe_index(data: bytes | bytearray | memoryview, sign: int = 0) -> list[dict]\n\n"
          "The items of an I-frame index block that carry the sign type (0 all, 1 to 5 sign bit 0 to 4), in "
          "table order: dicts of ordinal (from 1), word, stamp, mask and restarts (restarts up to and "
          "including the item). Raises IndexBlockError for a block the library refuses.");
    m.def("stream_info", &stream_info, py::arg("head"), py::arg("frame"),
          "stream_info(head: bytes | bytearray | memoryview, frame: bytes | bytearray | memoryview | Frame) -> dict\n\n"
          "What a stream head block (at least 88 bytes) and a frame header say: a dict of head_word0, "
          "head_word2, head_word4, frame_info, frame_attr, stream_kind and stream_reserved. Raises "
          "FrameError for an invalid frame header, Error (-5) for a short head block.");
    m.def("export", &export_recording, py::arg("source"), py::arg("out"), py::arg("key") = py::none(),
          py::arg("start") = py::none(), py::arg("end") = py::none(), py::arg("vtt") = py::none(),
          py::arg("csv") = py::none(), py::arg("json") = py::none(), py::arg("frames") = py::none(),
          py::arg("index") = py::none(), py::arg("fps") = py::none(), py::arg("data_track") = true,
          "export(source: str | os.PathLike | bytes | bytearray | memoryview, out: str | os.PathLike, "
          "key: str | bytes | None = None, start: datetime | str | float | None = None, "
          "end: datetime | str | float | None = None, vtt: str | os.PathLike | None = None, "
          "csv: str | os.PathLike | None = None, json: str | os.PathLike | None = None, "
          "frames: tuple[int | None, int | None] | None = None, index: str | os.PathLike | None = None, "
          "fps: float | None = None, data_track: bool = True) -> dict\n\n"
          "Writes the recording's pictures into out (.mp4, .m4v, .mov or .mkv) without re-encoding, each at its "
          "own time, as korvex-export does: start and end (a datetime, naive ones UTC; an ISO 8601 text; or "
          "seconds since 1970) cut a clip that opens at the key frame at or before start (--from, --to); "
          "frames=(first, last) cuts by frame numbers, last included (--frames); vtt, csv and json write the "
          "side files (--vtt, --csv, --json); index is an I-frame index of the recording (--index); fps the "
          "rate where the stream gives none. Returns a dict of frames, first_frame, last_frame, start, end "
          "(datetimes in UTC where the device's clock gave the times, else seconds), device_times and broken. "
          "Raises ExportError (code 1 broken input, 2 bad arguments or files); nothing is written then.");
}
