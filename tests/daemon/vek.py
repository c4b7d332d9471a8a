"""vek.py: the records and numbers of include/vek.h, read from it, so that they are written once. What is vek_event or
VEK_MAX_USERS there is vek.event or vek.MAX_USERS here. Text fields are strings, in6_addr is four words."""
import ctypes, pathlib, re, socket, sys

SOURCE = pathlib.Path(__file__).parents[2]
HEADER = re.sub(r"/\*.*?\*/", "", (SOURCE / "include/vek.h").read_text(), flags=re.S)
TYPES = {"char": ctypes.c_byte, "uint8_t": ctypes.c_uint8, "uint16_t": ctypes.c_uint16, "int32_t": ctypes.c_int32,
         "uint32_t": ctypes.c_uint32, "VEK_U64": ctypes.c_uint64, "in6_addr": ctypes.c_uint32 * 4}
FIELD = re.compile(r"(?:union \{([^}]*)\}|(?:struct )?(\w+)) (\w+)(?:\[(.+)\])?(?: : (\d+))?;")
NUMBERS = {}
LAYOUTS = {}  # the names of each record's fields and where they are, as the header asserts


class Text:
    """A field that holds text: cut to its size, with a NUL at the end."""
    def __init__(self, field):
        self.field, self.offset = field, field.offset

    def __get__(self, record, record_type):
        return self if record is None else self.field.__get__(record).decode(errors="surrogateescape")

    def __set__(self, record, text):
        self.field.__set__(record, text.encode()[:self.field.size - 1])


def value_of(expression):
    return eval(re.sub(r"\b(0x[0-9a-f]+|\d+)u\b", r"\1", expression), {}, NUMBERS)


def record_of(name, declarations, kind=ctypes.Structure):
    fields = []
    for union, type_name, field, length, bits in FIELD.findall(declarations):
        field_type = record_of(field, union, ctypes.Union) if union else TYPES[type_name]
        if length:
            field_type = (ctypes.c_char if type_name == "char" else field_type) * value_of(length)
        fields.append((field, field_type, int(bits)) if bits else (field, field_type))
    record = type(name, (kind,), {"_fields_": fields})
    for field, field_type, *_ in fields:
        if getattr(field_type, "_type_", None) is ctypes.c_char:
            setattr(record, field, Text(getattr(record, field)))
    return record


def in4(address):
    return int.from_bytes(socket.inet_aton(address), sys.byteorder)


def in6(address):
    return TYPES["in6_addr"].from_buffer_copy(socket.inet_pton(socket.AF_INET6, address))


for name, expression in re.findall(r'^(?:#define |\t)([A-Z]\w+)(?: = | )(["(\d].*?),?\s*$', HEADER, re.M):
    NUMBERS[name] = value_of(expression)
for name, declarations in re.findall(r"^struct (\w+) \{\n(.*?)^\};", HEADER, re.M | re.S):
    TYPES[name] = record_of(name, declarations)
for name, size in re.findall(r"^VEK_SIZE\((\w+), (\d+)\)", HEADER, re.M):
    assert ctypes.sizeof(TYPES[name]) == int(size), name
for name, field, offset in re.findall(r"^VEK_AT\((\w+), (\w+), (\d+)\)", HEADER, re.M):
    assert getattr(TYPES[name], field).offset == int(offset), (name, field)
    LAYOUTS.setdefault(name, {})[field] = int(offset)
globals().update({re.sub("^vek_", "", name, flags=re.I): value for name, value in (NUMBERS | TYPES).items()})
