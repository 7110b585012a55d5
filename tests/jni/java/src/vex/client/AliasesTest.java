package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;

import java.net.URLEncoder;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** Which names are aliases, and which entry an alias finds. */
@Tag("client")
class AliasesTest {
    private final List<CertificateInfo> infos = new ArrayList<>();
    private final Aliases<Integer> aliases = new Aliases<>();

    private static String fingerprint(int index) {
        return String.format("%062X", 0xABCDEF) + String.format("%02X", index);
    }

    /** Adds the entries 0, 1, 2 ... with these names, which end in the given years. */
    private void add(int year, String... names) throws Exception {
        for (String name : names) {
            int index = infos.size();
            String encoded = URLEncoder.encode(name, StandardCharsets.UTF_8).replace("+", "%20");
            CertificateInfo info = CertificateInfo.parseList("1F " + fingerprint(index) + " 2020-01-01T00:00:00Z "
                + year + "-01-01T00:00:00Z EC CN=a CN=b " + encoded + " AAAA").get(0);
            infos.add(info);
            aliases.add(info, index);
        }
    }

    private String alias(int index) {
        return aliases.aliasOf(infos.get(index));
    }

    @ParameterizedTest
    @ValueSource(strings = {"signer", "Signer", "a", "1", "Meier, Büro 3", "подпись", "חתימה", "署名", "𝔘nicode", "a:b",
        "%41", "=", "?", "0123456789abcdef", "name with \"quotes\" and 'quotes'"})
    void aUniqueNameIsTheAlias(String name) throws Exception {
        add(2030, "other", name);
        assertEquals(name, alias(1));
        for (String spelling : List.of(name, name.toLowerCase(Locale.ROOT), name.toUpperCase(Locale.ROOT))) {
            assertEquals(1, aliases.find(spelling), spelling);
        }
    }

    @ParameterizedTest
    @ValueSource(strings = {"", " ", " signer", "signer ", "a\tb", "a\nb", "a\u0000b", "\u001b[31mred", "a\u0085b",
        "a\u2028b", "a\u2029b", "\u00a0a", "abc\u202Etxt", "\u200bzero", "soft\u00adhyphen", "B\ufffdro",
        "0123456789ABCDEF0123456789abcdef0123456789ABCDEF0123456789abcdef",
        "01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF:01:23:45:67:89:AB:CD:EF"})
    void aNameThatMisleadsIsNoAlias(String name) throws Exception {
        add(2030, "other", name);
        assertEquals(fingerprint(1), alias(1));
        assertNull(aliases.find(name));
        assertEquals(1, aliases.find(fingerprint(1)));
    }

    @ParameterizedTest
    @CsvSource({"254,true", "255,true", "256,false", "10000,false"})
    void aNameHasALimitedLength(int length, boolean usable) throws Exception {
        String name = "n".repeat(length);
        add(2030, name);
        assertEquals(usable ? name : fingerprint(0), alias(0));
        assertEquals(usable ? 0 : null, aliases.find(name));
    }

    @Test
    void theFingerprintFindsEachEntryInEveryForm() throws Exception {
        add(2030, "signer", "", "same", "SAME");
        for (int i = 0; i < infos.size(); ++i) {
            String digits = fingerprint(i);
            String colons = digits.replaceAll("(..)(?!$)", "$1:");
            for (String form : List.of(digits, digits.toLowerCase(Locale.ROOT), colons,
                    colons.toLowerCase(Locale.ROOT))) {
                assertEquals(i, aliases.find(form), form);
            }
        }
        assertNull(aliases.find(fingerprint(99)));
        assertNull(aliases.find(""));
        assertNull(aliases.find("sign"));
        assertEquals("alias", assertThrows(NullPointerException.class, () -> aliases.find(null)).getMessage());
    }

    @Test
    void aSharedNameFindsTheEntryThatStaysValidLongest() throws Exception {
        add(2030, "signer");
        add(2032, "Signer");
        add(2031, "SIGNER");
        add(2032, "signer");  // as long as the second one
        add(2029, "alone");
        for (int i = 0; i < 4; ++i) {
            assertEquals(fingerprint(i), alias(i));
        }
        assertEquals("alone", alias(4));
        assertEquals(1, aliases.find("signer"));
        assertEquals(1, aliases.find("sIGNER"));
    }
}
