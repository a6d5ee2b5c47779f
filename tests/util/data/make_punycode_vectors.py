#!/usr/bin/env python3
"""Writes punycode_vectors.txt: labels and their raw RFC 3492 encodings.

Each data line is "<label as UTF-8 hex> <encoding>". The encodings come from
Python's built-in punycode codec, an independent RFC 3492 encoder without name
preparation or case annotation. The random labels use a fixed seed, so running
this again reproduces the file byte for byte:

    python3 make_punycode_vectors.py > punycode_vectors.txt

Python's codec writes the "-" delimiter whenever the label has basic code
points, so an all-ASCII label comes out with a trailing "-" that our encoder
leaves off. All-ASCII labels are therefore left out of the file (the tests
cover them directly); every label here has at least one non-ASCII code point,
and for those both encoders agree on the delimiter.
"""

import codecs
import random
import sys

SEED = 3492
RANDOM_LABELS = 300
LONG_LABELS = 12  # of the random ones, this many are 100-512 code points long

# Code point ranges by script. Surrogates are never produced: our encoder gets
# supplementary characters as single 32-bit wide characters.
SCRIPTS = {
    "latin": [(0x00C0, 0x00FF), (0x0100, 0x017F), (0x1E00, 0x1EFF)],
    "greek": [(0x0391, 0x03A9), (0x03B1, 0x03C9)],
    "cyrillic": [(0x0410, 0x044F)],
    "arabic": [(0x0621, 0x064A)],
    "hebrew": [(0x05D0, 0x05EA)],
    "cjk": [(0x4E00, 0x9FFF)],
    "devanagari": [(0x0905, 0x0939), (0x0966, 0x096F)],
    "hangul": [(0xAC00, 0xD7A3)],
    "emoji": [(0x1F300, 0x1F64F), (0x1F680, 0x1F6FF)],
    "astral": [(0x10000, 0x1007F), (0x20000, 0x2A6DF), (0x1D400, 0x1D7FF),
               (0x100000, 0x10FFFD)],
}
ASCII = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-"

# RFC 3492 section 7.1, samples A-R, with the encodings the RFC prints. The
# RFC marks the first letter of sample I for an upper-case final digit; the
# codec has no case annotation, so its encoding has "d" where the RFC has
# "D". Sample S is all ASCII and so is left out (see above).
RFC_SAMPLES = [
    ("A", "\u0644\u064A\u0647\u0645\u0627\u0628\u062A\u0643\u0644\u0645\u0648\u0634"
          "\u0639\u0631\u0628\u064A\u061F",
     "egbpdaj6bu4bxfgehfvwxn"),
    ("B", "\u4ED6\u4EEC\u4E3A\u4EC0\u4E48\u4E0D\u8BF4\u4E2D\u6587",
     "ihqwcrb4cv8a8dqg056pqjye"),
    ("C", "\u4ED6\u5011\u7232\u4EC0\u9EBD\u4E0D\u8AAA\u4E2D\u6587",
     "ihqwctvzc91f659drss3x8bo0yb"),
    ("D", "Pro\u010Dprost\u011Bnemluv\u00ED\u010Desky",
     "Proprostnemluvesky-uyb24dma41a"),
    ("E", "\u05DC\u05DE\u05D4\u05D4\u05DD\u05E4\u05E9\u05D5\u05D8\u05DC\u05D0\u05DE"
          "\u05D3\u05D1\u05E8\u05D9\u05DD\u05E2\u05D1\u05E8\u05D9\u05EA",
     "4dbcagdahymbxekheh6e0a7fei0b"),
    ("F", "\u092F\u0939\u0932\u094B\u0917\u0939\u093F\u0928\u094D\u0926\u0940\u0915"
          "\u094D\u092F\u094B\u0902\u0928\u0939\u0940\u0902\u092C\u094B\u0932\u0938"
          "\u0915\u0924\u0947\u0939\u0948\u0902",
     "i1baa7eci9glrd9b2ae1bj0hfcgg6iyaf8o0a1dig0cd"),
    ("G", "\u306A\u305C\u307F\u3093\u306A\u65E5\u672C\u8A9E\u3092\u8A71\u3057\u3066"
          "\u304F\u308C\u306A\u3044\u306E\u304B",
     "n8jok5ay5dzabd5bym9f0cm5685rrjetr6pdxa"),
    ("H", "\uC138\uACC4\uC758\uBAA8\uB4E0\uC0AC\uB78C\uB4E4\uC774\uD55C\uAD6D\uC5B4"
          "\uB97C\uC774\uD574\uD55C\uB2E4\uBA74\uC5BC\uB9C8\uB098\uC88B\uC744\uAE4C",
     "989aomsvi5e83db1d2a355cv1e0vak1dwrv93d5xbh15a0dt30a5jpsd879ccm6fea98c"),
    ("I", "\u043F\u043E\u0447\u0435\u043C\u0443\u0436\u0435\u043E\u043D\u0438\u043D"
          "\u0435\u0433\u043E\u0432\u043E\u0440\u044F\u0442\u043F\u043E\u0440\u0443"
          "\u0441\u0441\u043A\u0438",
     "b1abfaaepdrnnbgefbaDotcwatmq2g4l"),
    ("J", "Porqu\u00E9nopuedensimplementehablarenEspa\u00F1ol",
     "PorqunopuedensimplementehablarenEspaol-fmd56a"),
    ("K", "T\u1EA1isaoh\u1ECDkh\u00F4ngth\u1EC3ch\u1EC9n\u00F3iti\u1EBFngVi\u1EC7t",
     "TisaohkhngthchnitingVit-kjcr8268qyxafd2f1b9g"),
    ("L", "3\u5E74B\u7D44\u91D1\u516B\u5148\u751F",
     "3B-ww4c5e180e575a65lsy2b"),
    ("M", "\u5B89\u5BA4\u5948\u7F8E\u6075-with-SUPER-MONKEYS",
     "-with-SUPER-MONKEYS-pc58ag80a8qai00g7n9n"),
    ("N", "Hello-Another-Way-\u305D\u308C\u305E\u308C\u306E\u5834\u6240",
     "Hello-Another-Way--fc4qua05auwb3674vfr0b"),
    ("O", "\u3072\u3068\u3064\u5C4B\u6839\u306E\u4E0B2",
     "2-u9tlzr9756bt3uc0v"),
    ("P", "Maji\u3067Koi\u3059\u308B5\u79D2\u524D",
     "MajiKoi5-783gue6qz075azm5e"),
    ("Q", "\u30D1\u30D5\u30A3\u30FCde\u30EB\u30F3\u30D0",
     "de-jg4avhby1noc0d"),
    ("R", "\u305D\u306E\u30B9\u30D4\u30FC\u30C9\u3067",
     "d9juau41awczczp"),
]


def encode(label):
    return codecs.encode(label, "punycode").decode("ascii")


def random_label(rng, length):
    scripts = rng.sample(sorted(SCRIPTS), rng.randint(1, 3))
    ascii_share = rng.choice([0.0, 0.0, 0.2, 0.5, 0.8])
    chars = []
    for _ in range(length):
        if rng.random() < ascii_share:
            chars.append(rng.choice(ASCII))
        else:
            lo, hi = rng.choice(SCRIPTS[rng.choice(scripts)])
            chars.append(chr(rng.randint(lo, hi)))
    if all(ord(c) < 128 for c in chars):
        lo, hi = rng.choice(SCRIPTS[scripts[0]])
        chars[rng.randrange(length)] = chr(rng.randint(lo, hi))
    return "".join(chars)


def main():
    rng = random.Random(SEED)
    out = sys.stdout
    out.write("# Generated by make_punycode_vectors.py (seed %d); do not edit.\n" % SEED)
    out.write("# <label as UTF-8 hex> <raw RFC 3492 encoding, no case annotation>\n")
    out.write("# RFC 3492 section 7.1 samples A-R\n")
    for name, label, rfc in RFC_SAMPLES:
        encoded = encode(label)
        # The codec must reproduce the RFC, up to the case annotation of I.
        assert encoded == (rfc.lower() if name == "I" else rfc), (name, encoded)
        out.write("%s %s\n" % (label.encode("utf-8").hex(), encoded))
    out.write("# Random mixed-script labels\n")
    for i in range(RANDOM_LABELS):
        if i < LONG_LABELS:
            length = rng.randint(100, 512)
        else:
            length = rng.randint(1, 40)
        label = random_label(rng, length)
        encoded = encode(label)
        assert encoded and not any(c.isspace() for c in encoded)
        out.write("%s %s\n" % (label.encode("utf-8").hex(), encoded))


if __name__ == "__main__":
    main()
