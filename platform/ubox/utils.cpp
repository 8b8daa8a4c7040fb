// utils.cpp - calloc_a: one zeroed allocation carved into several aligned pieces.
#include <libubox/utils.h>

#include <cstdarg>
#include <cstdlib>

namespace {

// Pieces start on this boundary so any scalar type can live in each of them.
constexpr size_t kPieceAlign = 8;

constexpr size_t round_up(size_t len)
{
	return (len + kPieceAlign - 1) & ~(kPieceAlign - 1);
}

} // namespace

extern "C" void *__calloc_a(size_t len, ...) noexcept
{
	// First pass: total size. The argument list is (ptr, len) pairs ended by NULL.
	size_t total = round_up(len);
	va_list ap;
	va_start(ap, len);
	for (void **ptr = va_arg(ap, void **); ptr; ptr = va_arg(ap, void **))
		total += round_up(va_arg(ap, size_t));
	va_end(ap);

	char *base = static_cast<char *>(calloc(1, total ? total : 1));
	if (!base)
		return nullptr;

	size_t offset = round_up(len);
	va_start(ap, len);
	for (void **ptr = va_arg(ap, void **); ptr; ptr = va_arg(ap, void **)) {
		*ptr = base + offset;
		offset += round_up(va_arg(ap, size_t));
	}
	va_end(ap);
	return base;
}
