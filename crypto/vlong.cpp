#include "crypto/vlong.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace {

typedef unsigned long long u64;
typedef unsigned __int128 u128;

unsigned bitLength(unsigned x) { return x == 0 ? 0 : 32 - static_cast<unsigned>(__builtin_clz(x)); }

// r[0..rl) = a * b mod 2^(64 rl). r must not overlap a or b.
void mulWordsTrunc(u64* r, unsigned rl, const u64* a, unsigned al, const u64* b, unsigned bl) {
    if (rl == 0) return;  // a zero operand leaves no words, and memset wants a real pointer
    std::memset(r, 0, rl * sizeof(u64));
    for (unsigned i = 0; i < al && i < rl; ++i) {
        const u64 ai = a[i];
        if (ai == 0) continue;
        const unsigned jmax = bl < rl - i ? bl : rl - i;
        u64 carry = 0;
        u64* row = r + i;
        for (unsigned j = 0; j < jmax; ++j) {
            u128 t = static_cast<u128>(ai) * b[j] + row[j] + carry;
            row[j] = static_cast<u64>(t);
            carry = static_cast<u64>(t >> 64);
        }
        // Rows stop at the limit; a carry past it is dropped.
        if (i + jmax < rl) row[jmax] = carry;
    }
}

// r[0..2n) = a * a, r not overlapping a: the cross products once, doubled.
void sqrWords(u64* r, const u64* a, unsigned n) {
    std::memset(r, 0, 2 * n * sizeof(u64));
    for (unsigned i = 0; i + 1 < n; ++i) {
        const u64 ai = a[i];
        u64 carry = 0;
        for (unsigned j = i + 1; j < n; ++j) {
            u128 t = static_cast<u128>(ai) * a[j] + r[i + j] + carry;
            r[i + j] = static_cast<u64>(t);
            carry = static_cast<u64>(t >> 64);
        }
        r[i + n] = carry;
    }
    u64 top = 0;
    for (unsigned i = 0; i < 2 * n; ++i) {
        u64 next = r[i] >> 63;
        r[i] = (r[i] << 1) | top;
        top = next;
    }
    u64 c = 0;
    for (unsigned i = 0; i < n; ++i) {
        u128 sq = static_cast<u128>(a[i]) * a[i];
        u128 t = static_cast<u128>(r[2 * i]) + static_cast<u64>(sq) + c;
        r[2 * i] = static_cast<u64>(t);
        t = static_cast<u128>(r[2 * i + 1]) + static_cast<u64>(sq >> 64) +
            static_cast<u64>(t >> 64);
        r[2 * i + 1] = static_cast<u64>(t);
        c = static_cast<u64>(t >> 64);
    }
}

void toWords(const flex_unit& v, u64* out, unsigned n) {
    for (unsigned i = 0; i < n; ++i)
        out[i] = static_cast<u64>(v.get(2 * i)) | static_cast<u64>(v.get(2 * i + 1)) << 32;
}

void fromWords(flex_unit& v, const u64* in, unsigned n) {
    v.reserve(2 * n);
    for (unsigned i = 0; i < n; ++i) {
        v.units[2 * i] = static_cast<unsigned>(in[i]);
        v.units[2 * i + 1] = static_cast<unsigned>(in[i] >> 32);
    }
    v.used = 2 * n;
    while (v.used > 0 && v.units[v.used - 1] == 0) --v.used;
}

// Knuth's algorithm D on 32-bit units: q[0..m-n] and r[0..n) from u[0..m)
// and v[0..n), v[n-1] != 0, m >= n.
void divideUnits(const unsigned* u, unsigned m, const unsigned* v, unsigned n, unsigned* q,
                 unsigned* r) {
    if (n == 1) {
        u64 rem = 0;
        for (unsigned j = m; j-- > 0;) {
            u64 cur = (rem << 32) | u[j];
            q[j] = static_cast<unsigned>(cur / v[0]);
            rem = cur % v[0];
        }
        r[0] = static_cast<unsigned>(rem);
        return;
    }
    const unsigned s = static_cast<unsigned>(__builtin_clz(v[n - 1]));
    std::vector<unsigned> vn(n), un(m + 1);
    for (unsigned i = n - 1; i > 0; --i)
        vn[i] =
            (v[i] << s) | (s ? static_cast<unsigned>(static_cast<u64>(v[i - 1]) >> (32 - s)) : 0);
    vn[0] = v[0] << s;
    un[m] = s ? static_cast<unsigned>(static_cast<u64>(u[m - 1]) >> (32 - s)) : 0;
    for (unsigned i = m - 1; i > 0; --i)
        un[i] =
            (u[i] << s) | (s ? static_cast<unsigned>(static_cast<u64>(u[i - 1]) >> (32 - s)) : 0);
    un[0] = u[0] << s;

    const u64 base = 1ull << 32;
    for (unsigned j = m - n + 1; j-- > 0;) {
        const u64 num = (static_cast<u64>(un[j + n]) << 32) | un[j + n - 1];
        u64 qhat = num / vn[n - 1];
        u64 rhat = num % vn[n - 1];
        while (qhat >= base || qhat * vn[n - 2] > ((rhat << 32) | un[j + n - 2])) {
            --qhat;
            rhat += vn[n - 1];
            if (rhat >= base) break;
        }
        long long borrow = 0;
        for (unsigned i = 0; i < n; ++i) {
            const u64 p = qhat * vn[i];
            const long long t = static_cast<long long>(un[i + j]) - borrow -
                                static_cast<long long>(p & 0xFFFFFFFFull);
            un[i + j] = static_cast<unsigned>(t);
            borrow = static_cast<long long>(p >> 32) - (t >> 32);
        }
        const long long t = static_cast<long long>(un[j + n]) - borrow;
        un[j + n] = static_cast<unsigned>(t);
        q[j] = static_cast<unsigned>(qhat);
        if (t < 0) {
            // qhat was one too large: add the divisor back.
            --q[j];
            u64 carry = 0;
            for (unsigned i = 0; i < n; ++i) {
                const u64 sum = static_cast<u64>(un[i + j]) + vn[i] + carry;
                un[i + j] = static_cast<unsigned>(sum);
                carry = sum >> 32;
            }
            un[j + n] += static_cast<unsigned>(carry);
        }
    }
    for (unsigned i = 0; i < n; ++i)
        r[i] =
            (un[i] >> s) | (s ? static_cast<unsigned>(static_cast<u64>(un[i + 1]) << (32 - s)) : 0);
    std::memset(un.data(), 0, un.size() * sizeof(unsigned));
}

}  // namespace

// ---------------- flex_unit ----------------

flex_unit::flex_unit() : units(nullptr), capacity(0), used(0) {}

flex_unit::~flex_unit() {
    if (units != nullptr) {
        volatile unsigned* p = units;
        for (unsigned i = 0; i < capacity; ++i) p[i] = 0;
        delete[] units;
    }
}

unsigned flex_unit::get(unsigned i) const { return i < used ? units[i] : 0; }

void flex_unit::set(unsigned i, unsigned x) {
    if (i < used) {
        units[i] = x;
        if (x == 0)
            while (used > 0 && units[used - 1] == 0) --used;
    } else if (x != 0) {
        reserve(i + 1);
        for (unsigned j = used; j < i; ++j) units[j] = 0;
        units[i] = x;
        used = i + 1;
    }
}

void flex_unit::reserve(unsigned count) {
    if (count <= capacity) return;
    unsigned* grown = new unsigned[count];
    if (used > 0) std::memcpy(grown, units, used * sizeof(unsigned));
    delete[] units;  // not wiped; the destructor wipes what is live
    units = grown;
    capacity = count;
}

void flex_unit::clear() { used = 0; }

void flex_unit::fast_mul(flex_unit& x, flex_unit& y, unsigned keep) {
    const unsigned limit = (keep + 31) / 32;
    const unsigned xl = (x.used + 1) / 2, yl = (y.used + 1) / 2, rl = (limit + 1) / 2;
    std::vector<u64> buf(xl + yl + rl);
    u64 *xw = buf.data(), *yw = xw + xl, *rw = yw + yl;
    toWords(x, xw, xl);
    toWords(y, yw, yl);
    mulWordsTrunc(rw, rl, xw, xl, yw, yl);
    reserve(limit);
    for (unsigned i = 0; i < limit; ++i)
        units[i] = static_cast<unsigned>(rw[i / 2] >> (32 * (i % 2)));
    if (keep % 32 != 0 && limit > 0) units[limit - 1] &= (1u << (keep % 32)) - 1;
    used = limit;
    while (used > 0 && units[used - 1] == 0) --used;
    if (!buf.empty()) std::memset(buf.data(), 0, buf.size() * sizeof(u64));
}

// ---------------- vlong_value ----------------

vlong_value::operator unsigned() const { return get(0); }
bool vlong_value::is_zero() const { return used == 0; }
bool vlong_value::is_even() const { return (get(0) & 1) == 0; }

void vlong_value::reverse() {
    const unsigned n = used;
    for (unsigned i = 0; i < n / 2; ++i) {
        const unsigned a = get(i), b = get(n - i);
        set(i, b);
        set(n - i, a);
    }
}

bool vlong_value::test(unsigned bit) const { return (get(bit / 32) >> (bit % 32)) & 1; }

unsigned vlong_value::leading_zeros() const {
    return used == 0 ? 32 : 32 - bitLength(units[used - 1]);
}

unsigned vlong_value::bits() const {
    return used == 0 ? 0 : 32 * (used - 1) + bitLength(units[used - 1]);
}

int vlong_value::cf(const vlong_value& x) const {
    if (used != x.used) return used > x.used ? 1 : -1;
    for (unsigned i = used; i-- > 0;)
        if (units[i] != x.units[i]) return units[i] > x.units[i] ? 1 : -1;
    return 0;
}

void vlong_value::shl() { shl(1); }
void vlong_value::shr() { shr(1); }

void vlong_value::shl(unsigned count) {
    if (used == 0 || count == 0) return;
    const unsigned whole = count / 32, part = count % 32, n = used;
    reserve(n + whole + 1);
    units[n + whole] = 0;
    for (unsigned i = n; i-- > 0;) {
        const u64 v = static_cast<u64>(units[i]) << part;
        units[i + whole + 1] |= static_cast<unsigned>(v >> 32);
        units[i + whole] = static_cast<unsigned>(v);
    }
    for (unsigned i = 0; i < whole; ++i) units[i] = 0;
    used = n + whole + 1;
    while (used > 0 && units[used - 1] == 0) --used;
}

void vlong_value::shr(unsigned count) {
    const unsigned whole = count / 32, part = count % 32;
    if (whole >= used) {
        used = 0;
        return;
    }
    const unsigned n = used - whole;
    for (unsigned i = 0; i < n; ++i) {
        const u64 v = static_cast<u64>(get(i + whole)) | static_cast<u64>(get(i + whole + 1)) << 32;
        units[i] = static_cast<unsigned>(v >> part);
    }
    used = n;
    while (used > 0 && units[used - 1] == 0) --used;
}

void vlong_value::add(const vlong_value& x) {
    const unsigned n = used > x.used ? used : x.used;
    reserve(n + 1);
    for (unsigned i = used; i <= n; ++i) units[i] = 0;
    u64 carry = 0;
    for (unsigned i = 0; i < n; ++i) {
        carry += static_cast<u64>(units[i]) + x.get(i);
        units[i] = static_cast<unsigned>(carry);
        carry >>= 32;
    }
    units[n] = static_cast<unsigned>(carry);
    used = carry ? n + 1 : n;
    while (used > 0 && units[used - 1] == 0) --used;
}

void vlong_value::subtract(const vlong_value& x) {
    long long borrow = 0;
    for (unsigned i = 0; i < used; ++i) {
        long long d = static_cast<long long>(units[i]) - x.get(i) - borrow;
        borrow = d < 0;
        units[i] = static_cast<unsigned>(d);
    }
    while (used > 0 && units[used - 1] == 0) --used;
}

void vlong_value::init(unsigned x) {
    clear();
    set(0, x);
}

void vlong_value::copy(const vlong_value& x) {
    if (&x == this) return;
    clear();
    reserve(x.used);
    if (x.used > 0) std::memcpy(units, x.units, x.used * sizeof(unsigned));
    used = x.used;
}

void vlong_value::mul(vlong_value& x, vlong_value& y) { fast_mul(x, y, x.bits() + y.bits()); }

void vlong_value::divide(const vlong_value& x, const vlong_value& y, vlong_value& remainder) {
    if (y.is_zero()) {
        remainder.copy(x);
        clear();
        return;
    }
    if (x.cf(y) < 0) {
        remainder.copy(x);
        clear();
        return;
    }
    const unsigned m = x.used, n = y.used;
    std::vector<unsigned> q(m - n + 1), r(n);
    divideUnits(x.units, m, y.units, n, q.data(), r.data());
    clear();
    for (unsigned i = static_cast<unsigned>(q.size()); i-- > 0;) set(i, q[i]);
    remainder.clear();
    for (unsigned i = n; i-- > 0;) remainder.set(i, r[i]);
}

// ---------------- vlong ----------------

vlong::vlong(unsigned x) : value(new vlong_value), negative(false) { value->init(x); }

vlong::vlong(const vlong& x) : value(x.value), negative(x.negative) { ++value->share; }

vlong::vlong(const unsigned char* bytes, unsigned length)
    : value(new vlong_value), negative(false) {
    value->reserve((length + 3) / 4);
    for (unsigned i = 0; i < length; ++i) {
        const unsigned pos = length - 1 - i;  // byte significance
        const unsigned unit = pos / 4;
        value->set(unit, value->get(unit) | static_cast<unsigned>(bytes[i]) << (8 * (pos % 4)));
    }
}

vlong::~vlong() {
    if (value->share > 0)
        --value->share;
    else
        delete value;
}

vlong& vlong::operator=(const vlong& x) {
    if (x.value != value) {
        ++x.value->share;
        if (value->share > 0)
            --value->share;
        else
            delete value;
        value = x.value;
    }
    negative = x.negative;
    return *this;
}

void vlong::docopy() {
    if (value->share == 0) return;
    vlong_value* own = new vlong_value;
    own->copy(*value);
    --value->share;
    value = own;
}

vlong& vlong::operator+=(const vlong& x) {
    if (negative == x.negative) {
        docopy();
        value->add(*x.value);
    } else if (value->cf(*x.value) >= 0) {
        docopy();
        value->subtract(*x.value);
    } else {
        vlong diff = x;
        diff.docopy();
        diff.value->subtract(*value);
        *this = diff;
    }
    if (value->is_zero()) negative = false;
    return *this;
}

vlong& vlong::operator-=(const vlong& x) {
    vlong flipped = x;
    if (!x.is_zero()) flipped.negative = !x.negative;
    return *this += flipped;
}

int vlong::cf(const vlong& x) const {
    if (negative != x.negative) return negative ? -1 : 1;
    const int magnitude = value->cf(*x.value);
    return negative ? -magnitude : magnitude;
}

bool vlong::is_zero() const { return value->is_zero(); }
bool vlong::is_neg() const { return negative; }
bool vlong::is_even() const { return value->is_even(); }

void vlong::reverse() {
    docopy();
    value->reverse();
}

unsigned vlong::size() const { return value->used * 4; }

unsigned vlong::to_hex(unsigned char* buffer, unsigned length) const {
    if (length > 0) std::memset(buffer, 0, length);
    const unsigned bytes = value->used * 4;
    if (bytes > length) return length;
    for (unsigned i = 0; i < bytes; ++i)
        buffer[length - 1 - i] = static_cast<unsigned char>(value->units[i / 4] >> (8 * (i % 4)));
    return bytes;
}

void vlong::print(const char* suffix) const {
    std::string digits;
    char unit[9];
    for (unsigned i = value->used; i-- > 0;) {
        std::snprintf(unit, sizeof unit, "%08X", value->units[i]);
        digits += unit;
    }
    std::printf("%s%s", digits.c_str(), suffix);
}

vlong::operator unsigned() const { return static_cast<unsigned>(*value); }

vlong operator+(const vlong& x, const vlong& y) {
    vlong r = x;
    r += y;
    return r;
}

vlong operator-(const vlong& x, const vlong& y) {
    vlong r = x;
    r -= y;
    return r;
}

vlong operator*(const vlong& x, const vlong& y) {
    vlong r;
    r.value->mul(*x.value, *y.value);
    r.negative = !r.is_zero() && x.negative != y.negative;
    return r;
}

vlong operator/(const vlong& x, const vlong& y) {
    vlong q, rem;
    q.value->divide(*x.value, *y.value, *rem.value);
    q.negative = !q.is_zero() && x.negative != y.negative;
    return q;
}

vlong operator%(const vlong& x, const vlong& y) {
    vlong q, rem;
    q.value->divide(*x.value, *y.value, *rem.value);
    rem.negative = !rem.is_zero() && x.negative;
    return rem;
}

vlong operator>>(const vlong& x, unsigned n) {
    vlong r = x;
    r.docopy();
    r.value->shr(n);
    if (r.is_zero()) r.negative = false;
    return r;
}

vlong operator<<(const vlong& x, unsigned n) {
    vlong r = x;
    r.docopy();
    r.value->shl(n);
    return r;
}

bool operator>=(const vlong& x, const vlong& y) { return x.cf(y) >= 0; }
bool operator<(const vlong& x, const vlong& y) { return x.cf(y) < 0; }

vlong gcd(const vlong& a0, const vlong& b0) {
    vlong a = a0, b = b0;
    for (;;) {
        if (b.is_zero()) return a;
        a = a % b;
        if (a.is_zero()) return b;
        b = b % a;
    }
}

vlong modinv(const vlong& a, const vlong& m) {
    // Invariants: b = i * a and c = j * a, modulo m.
    vlong j = 1, i = 0, b = m, c = a;
    while (!c.is_zero()) {
        vlong x = b / c;
        vlong y = b - x * c;
        b = c;
        c = y;
        y = j;
        j = i - j * x;
        i = y;
    }
    if (i.is_neg()) i += m;
    return i;
}

// ---------------- monty ----------------

// Y (s + 1 words) is below 2m: out = Y - m if Y >= m, else Y. `out` may be Y.
void monty::subtractOnce(const u64* Y, u64* out) const {
    const unsigned s = limbs_;
    bool geq = Y[s] != 0;
    if (!geq) {
        geq = true;
        for (unsigned i = s; i-- > 0;) {
            if (Y[i] != mw_[i]) {
                geq = Y[i] > mw_[i];
                break;
            }
        }
    }
    if (geq) {
        u64 borrow = 0;
        for (unsigned i = 0; i < s; ++i) {
            const u128 d = static_cast<u128>(Y[i]) - mw_[i] - borrow;
            out[i] = static_cast<u64>(d);
            borrow = static_cast<u64>(d >> 64) ? 1 : 0;
        }
    } else {
        std::memmove(out, Y, s * sizeof(u64));
    }
}

monty::monty(const vlong& M) : m(M), N(0), fast_(false), limbs_(1) {
    // R is the least power of two not below M.
    const unsigned b = M.value->bits();
    N = b == 0 ? 0 : b - 1;
    if (M.value->cf(*(vlong(1) << N).value) > 0) ++N;
    R = vlong(1) << N;
    limbs_ = N == 0 ? 1 : (N + 63) / 64;
    fast_ = !M.is_even() && M.value->bits() > 1;
    if (!fast_) {
        // Only odd moduli above 1 have a Montgomery form; this keeps the
        // fields defined for the others.
        R1 = modinv(R - m, m);
        n1 = R - modinv(m, R);
        return;
    }
    const unsigned s = limbs_;
    mw_.assign(s, 0);
    n1w_.assign(s, 0);
    work_.assign(8 * s + 4, 0);
    toWords(*m.value, mw_.data(), s);

    // m^-1 mod 2^N by Newton's iteration, which doubles the correct bits at
    // each step; the same value modinv(m, R) gives.
    std::vector<u64> inv(s, 0), t(s, 0), u(s, 0);
    u64 x = mw_[0];  // correct to 3 bits for odd m
    for (int step = 0; step < 5; ++step) x *= 2 - mw_[0] * x;
    inv[0] = x;
    m0inv_ = 0 - x;
    for (unsigned prec = 1; prec < s;) {
        const unsigned next = prec * 2 < s ? prec * 2 : s;
        mulWordsTrunc(t.data(), next, mw_.data(), next, inv.data(), prec);  // m * inv
        // t = 2 - t, modulo 2^(64 next)
        u64 borrow = 0;
        for (unsigned i = 0; i < next; ++i) {
            const u128 d = static_cast<u128>(i == 0 ? 2 : 0) - t[i] - borrow;
            t[i] = static_cast<u64>(d);
            borrow = static_cast<u64>(d >> 64) ? 1 : 0;
        }
        mulWordsTrunc(u.data(), next, inv.data(), prec, t.data(), next);
        std::memcpy(inv.data(), u.data(), next * sizeof(u64));
        prec = next;
    }
    if (N % 64 != 0) inv[s - 1] &= (1ull << (N % 64)) - 1;
    vlong mInverse;
    fromWords(*mInverse.value, inv.data(), s);
    n1 = R - mInverse;
    toWords(*n1.value, n1w_.data(), s);

    // R^-1 mod m is the Montgomery product of 1 and 1.
    std::vector<u64> one(s, 0), r1(s, 0);
    one[0] = 1;
    mulWords(r1.data(), one.data(), one.data());
    fromWords(*R1.value, r1.data(), s);
}

void monty::mulWords(u64* out, const u64* a, const u64* b) {
    const unsigned s = limbs_;
    u64* T2 = work_.data();  // 2s: a * b
    u64* K = T2 + 2 * s;     // s: T * n1 mod 2^N
    u64* P = K + s;          // 2s: k * m
    u64* X = P + 2 * s;      // 2s + 1: k * m + T
    if (a == b)
        sqrWords(T2, a, s);
    else
        mulWordsTrunc(T2, 2 * s, a, s, b, s);
    mulWordsTrunc(K, s, T2, s, n1w_.data(), s);
    if (N % 64 != 0) K[s - 1] &= (1ull << (N % 64)) - 1;
    mulWordsTrunc(P, 2 * s, K, s, mw_.data(), s);
    u64 carry = 0;
    for (unsigned i = 0; i < 2 * s; ++i) {
        const u128 sum = static_cast<u128>(P[i]) + T2[i] + carry;
        X[i] = static_cast<u64>(sum);
        carry = static_cast<u64>(sum >> 64);
    }
    X[2 * s] = carry;
    // Shift right by N bits into s + 1 words; the value is below 2m.
    const unsigned whole = N / 64, part = N % 64;
    u64* Y = P;  // reuse: s + 1 words
    for (unsigned i = 0; i <= s; ++i) {
        const u64 lo = i + whole <= 2 * s ? X[i + whole] : 0;
        const u64 hi = i + whole + 1 <= 2 * s ? X[i + whole + 1] : 0;
        Y[i] = part ? (lo >> part) | (hi << (64 - part)) : lo;
    }
    subtractOnce(Y, out);
}

void monty::mul(vlong& x, const vlong& y) {
    if (!fast_) {
        // The literal steps, for moduli without a Montgomery form.
        T = x * y;
        k.docopy();
        k.value->fast_mul(*T.value, *n1.value, N);
        x = k * m;
        x += T;
        x = x >> N;
        if (x >= m) x -= m;
        return;
    }
    std::vector<u64> a(limbs_), b(limbs_), r(limbs_);
    toWords(*x.value, a.data(), limbs_);
    toWords(*y.value, b.data(), limbs_);
    mulWords(r.data(), a.data(), b.data());
    x.docopy();
    fromWords(*x.value, r.data(), limbs_);
    x.negative = false;
}

void monty::mulReduce(u64* out, const u64* a, const u64* b) {
    // Product scanning: column by column, the products of a * b and of q * m
    // go into one 192-bit accumulator, and q is chosen so that each of the
    // low s columns comes out zero.
    const unsigned s = limbs_;
    const u64* mm = mw_.data();
    u64* q = work_.data();  // s words
    u64* Y = q + s;         // s + 1 words
    u128 acc = 0;
    u64 hi = 0;
    auto mac = [&acc, &hi](u64 x, u64 y) {
        const u128 p = static_cast<u128>(x) * y;
        acc += p;
        hi += acc < p ? 1 : 0;
    };
    auto shift = [&acc, &hi]() {
        acc = (acc >> 64) | (static_cast<u128>(hi) << 64);
        hi = 0;
    };
    for (unsigned i = 0; i < s; ++i) {
        for (unsigned j = 0; j < i; ++j) {
            mac(a[j], b[i - j]);
            mac(q[j], mm[i - j]);
        }
        mac(a[i], b[0]);
        q[i] = static_cast<u64>(acc) * m0inv_;
        mac(q[i], mm[0]);
        shift();
    }
    for (unsigned i = s; i < 2 * s; ++i) {
        for (unsigned j = i - s + 1; j < s; ++j) {
            mac(a[j], b[i - j]);
            mac(q[j], mm[i - j]);
        }
        Y[i - s] = static_cast<u64>(acc);
        shift();
    }
    Y[s] = static_cast<u64>(acc);
    subtractOnce(Y, out);
}

vlong monty::exp(const vlong& x, const vlong& e) {
    const unsigned bits = e.value->bits();
    if (bits == 0) return vlong(1) % m;  // x^0; the bit loop has no top bit to stop at
    if (!fast_) {
        // Right to left, square and multiply, in R = 2^N.
        vlong result = R - m;
        vlong t = (x * R) % m;
        if (t.is_neg()) t += m;
        for (unsigned i = 0;; ++i) {
            if (e.value->test(i)) mul(result, t);
            if (i + 1 == bits) break;
            mul(t, t);
        }
        return (result * R1) % m;
    }
    // The same power by a left-to-right sliding window over whole 64-bit
    // words, which needs fewer and cheaper products; x^e mod m is the same.
    const unsigned s = limbs_;
    const vlong wordR = vlong(1) << (64 * s);
    vlong base = (x * wordR) % m;
    if (base.is_neg()) base += m;
    const unsigned w = bits > 671 ? 6 : bits > 239 ? 5 : bits > 79 ? 4 : bits > 23 ? 3 : 1;
    std::vector<u64> table((size_t(1) << (w - 1)) * s), square(s), acc(s);
    toWords(*base.value, table.data(), s);  // table[i] = base^(2i+1)
    mulReduce(square.data(), table.data(), table.data());
    for (size_t i = 1; i < (size_t(1) << (w - 1)); ++i)
        mulReduce(table.data() + i * s, table.data() + (i - 1) * s, square.data());
    bool started = false;  // the top bit is set, so the first window starts acc
    for (int i = static_cast<int>(bits) - 1; i >= 0;) {
        if (!e.value->test(static_cast<unsigned>(i))) {
            mulReduce(acc.data(), acc.data(), acc.data());
            --i;
            continue;
        }
        // The longest window of at most w bits that ends in a set bit.
        int low = i - static_cast<int>(w) + 1;
        if (low < 0) low = 0;
        while (!e.value->test(static_cast<unsigned>(low))) ++low;
        unsigned window = 0;
        for (int k = i; k >= low; --k) {
            if (started) mulReduce(acc.data(), acc.data(), acc.data());
            window = (window << 1) | (e.value->test(static_cast<unsigned>(k)) ? 1u : 0u);
        }
        const u64* power = table.data() + (window >> 1) * s;
        if (started)
            mulReduce(acc.data(), acc.data(), power);
        else
            std::memcpy(acc.data(), power, s * sizeof(u64));
        started = true;
        i = low - 1;
    }
    std::vector<u64> one(s, 0);
    one[0] = 1;
    mulReduce(acc.data(), acc.data(), one.data());  // out of Montgomery form
    vlong result;
    fromWords(*result.value, acc.data(), s);
    std::memset(table.data(), 0, table.size() * sizeof(u64));
    return result;
}

vlong modexp(const vlong& x, const vlong& e, const vlong& m) {
    if (m.is_zero()) return vlong(0);
    if (e.is_zero()) return vlong(1) % m;
    if (m.is_even()) {
        // No Montgomery form: plain square-and-multiply, reducing as it goes.
        vlong base = x % m, result = vlong(1) % m;
        if (base.is_neg()) base += m;
        const unsigned bits = e.value->bits();
        for (unsigned i = 0; i < bits; ++i) {
            if (e.value->test(i)) result = (result * base) % m;
            base = (base * base) % m;
        }
        return result;
    }
    monty me(m);
    return me.exp(x, e);
}
