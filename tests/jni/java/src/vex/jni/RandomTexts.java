package vex.jni;

import java.util.Random;
import java.util.function.IntPredicate;

/** Random Java strings of every kind: most are short, a few have up to 1 Mi characters. */
final class RandomTexts {
    static final int LONGEST = 1 << 20;

    private final Random random;
    private final IntPredicate isInLocale;

    /** @param isInLocale whether the locale can encode a character */
    RandomTexts(Random random, IntPredicate isInLocale) {
        this.random = random;
        this.isInLocale = isInLocale;
    }

    String next() {
        int length = length();
        return switch (random.nextInt(8)) {
            case 0 -> text(length, this::ascii);
            case 1, 2, 3 -> text(length, this::inLocale);
            case 4 -> text(length, this::basicPlane);
            case 5 -> text(length, () -> random.nextInt(4) == 0 ? ascii() : otherPlanes());
            case 6 -> with(text(length, this::inLocale), '\0');
            default -> with(text(length, this::inLocale), surrogate());
        };
    }

    /** A text that the locale can encode, of about this number of UTF-16 units. */
    String signable(int units) {
        return text(units, this::inLocale);
    }

    private interface Characters {
        int next();
    }

    /** About the number of UTF-16 units. Half of the texts have fewer than 16; one in 8000 has the largest number. */
    private int length() {
        int of = random.nextInt(4000);
        if (of == 0) {
            return random.nextBoolean() ? LONGEST : random.nextInt(LONGEST);
        }
        int bits = of < 40 ? 16 : of < 400 ? 11 : of < 2000 ? 7 : 4;
        return random.nextInt(1 << bits);
    }

    private String text(int length, Characters characters) {
        StringBuilder text = new StringBuilder(length + 1);
        while (text.length() < length) {
            text.appendCodePoint(characters.next());
        }
        return text.toString();
    }

    /** Inserts a unit into the text, where it may complete a surrogate pair. */
    private String with(String text, char unit) {
        return new StringBuilder(text).insert(random.nextInt(text.length() + 1), unit).toString();
    }

    private int ascii() {
        return 1 + random.nextInt(0x7f);
    }

    private int inLocale() {
        int tries = 0;
        int character;
        do {
            character = switch (random.nextInt(4)) {
                case 0 -> ascii();
                case 1 -> 0x80 + random.nextInt(0x780);
                case 2 -> basicPlane();
                default -> otherPlanes();
            };
        } while (!isInLocale.test(character) && ++tries < 3);
        return isInLocale.test(character) ? character : ascii();
    }

    private char surrogate() {
        return (char) (Character.MIN_SURROGATE + random.nextInt(Character.MAX_SURROGATE - Character.MIN_SURROGATE + 1));
    }

    private int basicPlane() {
        int character = 1 + random.nextInt(0xffff);
        return character >= Character.MIN_SURROGATE && character <= Character.MAX_SURROGATE ? 0xfffd : character;
    }

    private int otherPlanes() {
        return 0x10000 + random.nextInt(0x100000);
    }
}
