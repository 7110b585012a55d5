package vex.client;

/** Hexadecimal digits. */
final class Hex {
    private static final String DIGITS = "0123456789ABCDEF";

    private Hex() {}

    /** Two upper-case digits for each of the bytes with the indices from {@code begin} to {@code end - 1}. */
    static String digits(byte[] bytes, int begin, int end) {
        StringBuilder digits = new StringBuilder(2 * (end - begin));
        for (int i = begin; i < end; ++i) {
            digits.append(DIGITS.charAt(bytes[i] >> 4 & 0xf)).append(DIGITS.charAt(bytes[i] & 0xf));
        }
        return digits.toString();
    }
}
