package vex.client;

import java.time.Instant;
import java.util.HashMap;
import java.util.HashSet;
import java.util.Locale;
import java.util.Map;
import java.util.Objects;
import java.util.Set;
import java.util.regex.Pattern;

/**
 * The names of a KeyStore's entries. An alias is the entry's name in the store if no other entry has it, else the
 * certificate's fingerprint. Immutable once it is filled.
 *
 * @param <T> what a name leads to
 */
final class Aliases<T> {
    /** The most that PKCS #9 allows for a friendly name. */
    private static final int LONGEST_NAME = 255;
    /** Stands for bytes that are not UTF-8. */
    private static final int REPLACEMENT = 0xfffd;
    private static final Pattern FINGERPRINT = Pattern.compile("[0-9A-Fa-f]{64}");

    private final Map<String, Named<T>> byFingerprint = new HashMap<>();
    private final Map<String, Named<T>> byName = new HashMap<>();
    private final Set<String> sharedNames = new HashSet<>();

    private static final class Named<T> {
        final T value;
        final Instant end;

        Named(T value, Instant end) {
            this.value = value;
            this.end = end;
        }
    }

    void add(CertificateInfo info, T value) {
        Named<T> named = new Named<>(value, info.notAfter());
        byFingerprint.put(info.fingerprint(), named);
        if (isUsable(info.name())) {
            String name = toKey(info.name());
            Named<T> other = byName.get(name);
            if (other != null) {
                sharedNames.add(name);
            }
            if (other == null || named.end.isAfter(other.end)) {
                byName.put(name, named);
            }
        }
    }

    /** The alias to list for an entry. */
    String aliasOf(CertificateInfo info) {
        String name = info.name();
        return isUsable(name) && !sharedNames.contains(toKey(name)) ? name : info.fingerprint();
    }

    /**
     * Finds by a fingerprint, in any case, with or without colons; or by a name, in any case. Of several entries with
     * the name, it finds the one that stays valid longest. So a configured name goes on to work when a certificate is
     * renewed.
     *
     * @return null: nothing has this name
     */
    T find(String alias) {
        Objects.requireNonNull(alias, "alias");
        Named<T> found = isFingerprint(alias) ? byFingerprint.get(Certificates.normalized(alias))
                                              : byName.get(toKey(alias));
        return found == null ? null : found.value;
    }

    private static boolean isFingerprint(String text) {
        return FINGERPRINT.matcher(text.replace(":", "")).matches();
    }

    /** Names that tools would print misleadingly, or that hardly anyone could enter, are no aliases. */
    private static boolean isUsable(String name) {
        return name != null && !name.isEmpty() && name.length() <= LONGEST_NAME
            && !isFingerprint(name)
            && !isBlank(name.codePointAt(0)) && !isBlank(name.codePointBefore(name.length()))
            && name.codePoints().allMatch(Aliases::isPrintable);
    }

    private static boolean isBlank(int character) {
        return Character.isSpaceChar(character);
    }

    private static boolean isPrintable(int character) {
        if (character == REPLACEMENT) {
            return false;
        }
        switch (Character.getType(character)) {
            case Character.CONTROL:
            case Character.FORMAT:  // also reverses the direction of text, or has no width
            case Character.LINE_SEPARATOR:
            case Character.PARAGRAPH_SEPARATOR:
            case Character.SURROGATE:
                return false;
            default:
                return true;
        }
    }

    private static String toKey(String name) {
        return name.toLowerCase(Locale.ROOT);
    }
}
