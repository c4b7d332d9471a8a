// text.h: text in fixed-size fields.
#ifndef TEXT_H
#define TEXT_H

#include <cstddef>
#include <cstring>

// Copies text, cut to the field, terminated; the rest of the field becomes zero, so that nothing of what was
// there before reaches whoever is sent the record.
template <std::size_t N> void copy_text(char (&field)[N], const char *text)
{
	const std::size_t length = strnlen(text, N - 1);
	std::memcpy(field, text, length);
	std::memset(field + length, 0, N - length);
}

// How many bytes of a control character a terminated text begins with: one of ASCII, or of the thirty-two that
// UTF-8 has beyond it (U+0080 to U+009F), which terminals obey as well. 0 for any other text.
inline std::size_t control_length(const char *text)
{
	const auto c = static_cast<unsigned char>(*text);
	if ((c < ' ' && c != '\0') || c == 0x7f)
		return 1;
	return c == 0xc2 && (static_cast<unsigned char>(text[1]) & 0xe0) == 0x80 ? 2 : 0;
}

// Puts question marks in the place of each control character, for text that users chose and that is printed:
// it can then neither end a line nor steer a terminal.
inline void mask_controls(char *text)
{
	for (; *text != '\0'; text++)
		for (std::size_t i = control_length(text); i > 0; i--)
			text[i - 1] = '?';
}

#endif
