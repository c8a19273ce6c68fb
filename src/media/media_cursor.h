// media_cursor.h: the one bounded cursor every format reader walks its
// bytes with. A read past the end gives 0 and marks the cursor bad, and a
// bad cursor stays bad, so a reader may read a run of fields freely and
// check `bad` once before any of them sizes, counts or places anything.
// A sub-cursor is clamped to its parent; a cursor placed at an offset (the
// offset-based chains of TIFF) is clamped to the whole it was placed in.
#pragma once
#include <cstddef>
#include <cstdint>

struct media_cursor {
    const uint8_t* p;
    const uint8_t* end;
    int bad;
};

inline media_cursor media_open(const uint8_t* bytes, size_t size)
{
    return bytes ? media_cursor{bytes, bytes + size, 0} : media_cursor{nullptr, nullptr, 1};
}

inline size_t media_left(const media_cursor* c) { return size_t(c->end - c->p); }

inline int media_take(media_cursor* c, size_t n, const uint8_t** out)
{
    if (c->bad || media_left(c) < n) {
        c->bad = 1;
        c->p = c->end;
        return 0;
    }
    *out = c->p;
    c->p += n;
    return 1;
}

inline int media_skip(media_cursor* c, size_t n)
{
    const uint8_t* b;
    return media_take(c, n, &b);
}

inline uint32_t media_u8(media_cursor* c)
{
    const uint8_t* b;
    return media_take(c, 1, &b) ? b[0] : 0;
}

inline uint32_t media_be16(media_cursor* c)
{
    const uint8_t* b;
    return media_take(c, 2, &b) ? uint32_t(b[0]) << 8 | b[1] : 0;
}

inline uint32_t media_le16(media_cursor* c)
{
    const uint8_t* b;
    return media_take(c, 2, &b) ? uint32_t(b[1]) << 8 | b[0] : 0;
}

inline uint32_t media_be32(media_cursor* c)
{
    const uint8_t* b;
    if (!media_take(c, 4, &b))
        return 0;
    return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
}

inline uint32_t media_le32(media_cursor* c)
{
    const uint8_t* b;
    if (!media_take(c, 4, &b))
        return 0;
    return uint32_t(b[3]) << 24 | uint32_t(b[2]) << 16 | uint32_t(b[1]) << 8 | b[0];
}

// The next n bytes as a cursor of their own; c moves past them.
inline media_cursor media_sub(media_cursor* c, size_t n)
{
    const uint8_t* b = nullptr;
    return media_take(c, n, &b) ? media_cursor{b, b + n, 0} : media_cursor{c->end, c->end, 1};
}

// A new cursor from offset bytes past where whole stands, up to whole's
// end; whole does not move. An offset past the end gives a bad cursor.
inline media_cursor media_at(const media_cursor* whole, uint64_t offset)
{
    if (whole->bad || offset > media_left(whole))
        return media_cursor{whole->end, whole->end, 1};
    return media_cursor{whole->p + offset, whole->end, 0};
}
