#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>

#include "http/http_names.h"
#include "http/string_section.h"

namespace quorvel {

// The head of one HTTP message, request or response, kept as its own wire
// text in one heap block with views into it: serialising costs nothing and
// parsing allocates once. Invalid headers hold no block at all.
class MessageHeaders {
 public:
  enum class Kind { Request, Response };

  struct Field {
    StringSection name;   // trimmed
    StringSection value;  // trimmed; continuation lines included, line breaks and all
  };

  // Walks the field lines in order, joining continuation lines to the field
  // before them. Invalidated by addField and by destruction of the headers.
  class FieldIterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Field;
    using difference_type = std::ptrdiff_t;
    using pointer = const Field*;
    using reference = const Field&;

    FieldIterator() = default;
    const Field& operator*() const { return field_; }
    const Field* operator->() const { return &field_; }
    FieldIterator& operator++();
    FieldIterator operator++(int) {
      FieldIterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const FieldIterator& o) const { return line_ == o.line_; }
    bool operator!=(const FieldIterator& o) const { return line_ != o.line_; }

   private:
    friend class MessageHeaders;
    FieldIterator(const char* line, const char* end);
    void load() { decode(extend()); }
    // Finds where the field ends (continuation lines included) and the next
    // one starts; returns the end of its text.
    const char* extend();
    void decode(const char* lineEnd);

    const char* line_ = nullptr;  // start of the current field; null at the end
    const char* next_ = nullptr;
    const char* end_ = nullptr;
    Field field_;
  };

  // Heads are built in blocks of this size and grow by it.
  static constexpr std::size_t BlockSize = 512;

  MessageHeaders() = default;
  MessageHeaders(const MessageHeaders& other);
  MessageHeaders(MessageHeaders&& other) noexcept;
  MessageHeaders& operator=(const MessageHeaders& other);
  MessageHeaders& operator=(MessageHeaders&& other) noexcept;
  ~MessageHeaders() = default;

  // "<version> <code> <reason>\r\n". Invalid when the start line would not
  // fit the first block.
  static MessageHeaders response(uint32_t code, StringSection reason, StringSection version = HttpVersion::V11);
  static MessageHeaders response(const HttpStatus& status, StringSection version = HttpVersion::V11) {
    return response(status.code, status.reason, version);
  }
  // "<method> <target> <version>\r\n", under the same size rule.
  static MessageHeaders request(StringSection method, StringSection target, StringSection version = HttpVersion::V11);

  // The same, made in this object's own block when that is big enough: for
  // an owner that keeps one head for request after request.
  void assignRequest(StringSection method, StringSection target, StringSection version = HttpVersion::V11);

  // Parses a start line and field lines, each ending in "\r\n"; one trailing
  // empty line is accepted and dropped. Malformed text gives invalid headers.
  static MessageHeaders parse(Kind kind, const char* data, std::size_t size);
  static MessageHeaders parseRequest(const char* data, std::size_t size) { return parse(Kind::Request, data, size); }
  static MessageHeaders parseResponse(const char* data, std::size_t size) { return parse(Kind::Response, data, size); }
  // The same for text that is not contiguous: gather(char* destination) must
  // write exactly size bytes. Lets a head spread over several buffers be
  // parsed with the one allocation it needs anyway.
  template <typename Gather>
  static MessageHeaders parseGathered(Kind kind, std::size_t size, Gather&& gather) {
    MessageHeaders headers;
    headers.assignParsed(kind, size, std::forward<Gather>(gather));
    return headers;
  }
  // parseGathered into this object, in its own block when that is big
  // enough.
  template <typename Gather>
  void assignParsed(Kind kind, std::size_t size, Gather&& gather) {
    clearViews();
    if (!buffer_ || capacity_ < size + HttpLineEnd::Length) {
      buffer_.reset(new char[size + HttpLineEnd::Length]);
      capacity_ = size + HttpLineEnd::Length;
    }
    gather(buffer_.get());
    parseInPlace(kind, size);
  }
  // Exchanges the two heads, blocks and all.
  void swap(MessageHeaders& other) noexcept;

  bool isValid() const { return static_cast<bool>(buffer_); }

  // Appends "<name>: <value>\r\n". Throws std::logic_error on invalid headers.
  void addField(StringSection name, StringSection value);
  void addField(StringSection name, uint32_t value);
  // Adds every field of `other` as addField would, one after another; where
  // the framing fields land is noted as they are written.
  void appendFields(const MessageHeaders& other);

  FieldIterator begin() const;
  FieldIterator end() const { return FieldIterator(); }
  // The first field with this name, compared without regard to case.
  FieldIterator find(StringSection name) const;
  bool has(StringSection name) const { return find(name) != end(); }
  // The next field with this name after `field`, or end().
  FieldIterator findAfter(StringSection name, const FieldIterator& field) const;
  // The first field of each of `count` names, in one walk; end() for a name
  // that is not there.
  void findFields(const StringSection* names, FieldIterator* found, std::size_t count) const;

  // The wire form, ending in the empty line; size 0 when invalid.
  const char* data() const { return buffer_.get(); }
  std::size_t size() const { return buffer_ ? length_ + HttpLineEnd::Length : 0; }
  std::size_t capacity() const { return capacity_; }

  StringSection method() const { return view(method_); }
  StringSection requestTarget() const { return view(target_); }
  StringSection version() const { return view(version_); }
  StringSection reason() const { return view(reason_); }
  // 0 for a request.
  uint32_t statusCode() const { return statusCode_; }

  // The fields that say how a message ends. Every exchange reads them, some
  // several times: where the first of each is, is noted as the head is
  // parsed (or by the first look after fields were added), so looking again
  // takes no walk.
  enum class FramingField { ContentLength, TransferEncoding, Connection };
  FieldIterator framingField(FramingField which) const;

  // What the body rule reads: the first Content-Length and
  // Transfer-Encoding fields (end() when absent).
  struct Framing {
    FieldIterator length;
    FieldIterator encoding;
    bool chunked() const;
  };
  Framing framing() const;
  // Whether a message with this head carries a body. For a response, pass
  // the method of the request it answers.
  bool hasBody(StringSection requestMethod = StringSection()) const { return hasBody(requestMethod, framing()); }
  bool hasBody(StringSection requestMethod, const Framing& framing) const;
  // For responses that must not be cached: adds "Cache-Control: no-cache"
  // and "Pragma: no-cache" unless the response already says how to cache.
  void addNoCacheFields();

 private:
  struct View {
    uint32_t begin = 0;
    uint32_t end = 0;
  };

  StringSection view(View v) const {
    return buffer_ ? StringSection(buffer_.get() + v.begin, buffer_.get() + v.end) : StringSection();
  }
  void allocateStartLine(std::size_t lineLength);
  void finishStartLine(std::size_t lineLength);
  void parseInPlace(Kind kind, std::size_t size);
  void findFrom(const char* line, const StringSection* names, FieldIterator* found, std::size_t count) const;
  void reset();
  void clearViews();
  // Everything but the block itself.
  void copyLayout(const MessageHeaders& other);
  // Notes the field line at `line` (its name ends at `colon`) if it is the
  // first of a framing name.
  void noteFraming(const char* line, const char* colon);
  // Walks the fields for framingAt_ unless it is known already.
  void knowFraming() const;
  // addField without the bookkeeping.
  void appendLine(StringSection name, StringSection value);
  // Room for `extra` more bytes of fields and the final empty line.
  void reserveFields(std::size_t extra);

  std::unique_ptr<char[]> buffer_;
  std::size_t length_ = 0;    // head text without the final empty line
  std::size_t capacity_ = 0;
  View method_, target_, version_, reason_;
  uint32_t statusCode_ = 0;
  uint32_t fieldsStart_ = 0;
  // Where the first field of each framing name starts, as an offset into the
  // block; 0 (the start line's place) when there is none. Trusted while
  // framingKnown_, which an added field clears.
  static constexpr std::size_t FramingNames = 3;
  mutable std::array<uint32_t, FramingNames> framingAt_{};
  mutable bool framingKnown_ = false;
  // Every field line reads exactly as appendLine() writes it ("name: value",
  // nothing to trim, no continuation lines): appendFields() can then copy
  // the lines as they are. Noted by the parse; anything added clears it.
  bool fieldsVerbatim_ = false;
};

// Finds "\r\n" in [begin, end); null when there is none.
const char* findLineEnd(const char* begin, const char* end);

}  // namespace quorvel
