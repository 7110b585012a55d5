package vex.jni;

import java.util.List;
import java.util.Optional;
import java.util.function.Predicate;
import java.util.regex.Pattern;
import vex.jni.ThirdPartySigner.Form;

/**
 * Signatures that a verifier does not know, and how it says so. docs/interoperability.md has the same list.
 *
 * @param what for the report
 */
record VerifierGap(String verifier, String what, Predicate<Scheme> schemes, Predicate<Form> forms, Pattern reason) {
    private static final Predicate<Scheme> SHORTENED =
        scheme -> !scheme.isEdwards() && scheme.digest().name().startsWith("SHA-512/");

    static final List<VerifierGap> ALL = List.of(
        new VerifierGap("GnuTLS", "RSASSA-PSS with another digest than SHA-256, SHA-384 and SHA-512",
            scheme -> scheme.pss() && !scheme.digest().name().matches("SHA-(256|384|512)"), Form.P1::equals,
            Pattern.compile("GnuTLS has no algorithm RSA-PSS-")),
        // It looks for a signature with SHA-256, whatever the parameters in the signature say.
        new VerifierGap("GnuTLS", "P7 with RSASSA-PSS and another digest than SHA-256",
            scheme -> scheme.pss() && !scheme.digest().name().equals("SHA-256"), form -> form != Form.P1,
            Pattern.compile("GNUTLS_E_PK_SIG_VERIFY_FAILED")),
        new VerifierGap("GnuTLS", "SHA-512/224 and SHA-512/256", scheme -> SHORTENED.test(scheme) && !scheme.pss(),
            form -> true, Pattern.compile("GnuTLS has no algorithm|GNUTLS_E_UNKNOWN_ALGORITHM")),
        new VerifierGap("Bouncy Castle", "P7 with RSASSA-PSS and SHA-512/224 or SHA-512/256",
            scheme -> SHORTENED.test(scheme) && scheme.pss(), form -> form != Form.P1,
            Pattern.compile("Unknown signature type requested")));

    static Optional<VerifierGap> find(Verifier verifier, Scheme scheme, Form form) {
        return ALL.stream().filter(gap -> gap.verifier().equals(verifier.name()) && gap.schemes().test(scheme)
            && gap.forms().test(form)).findFirst();
    }
}
