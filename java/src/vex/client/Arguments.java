package vex.client;

import java.util.Objects;

/** Checks arguments. */
final class Arguments {
    private Arguments() {}

    /** Returns the array if neither it nor an element is null. */
    static <T> T[] requireElements(T[] array, String name) {
        Objects.requireNonNull(array, name);
        for (int i = 0; i < array.length; ++i) {
            if (array[i] == null) {
                throw new NullPointerException(name + "[" + i + "]");
            }
        }
        return array;
    }
}
