package vex.client;

import java.security.AlgorithmParameters;
import java.security.InvalidAlgorithmParameterException;
import java.security.NoSuchAlgorithmException;
import java.security.ProviderException;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.InvalidParameterSpecException;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;

/** RSASSA-PSS as the toolkit makes it: with the same digest in MGF1, and a salt as long as the digest. */
final class PssParameters {
    private static final String MGF1 = "MGF1";
    /** 0xbc, the only one. */
    private static final int TRAILER = 1;

    private PssParameters() {}

    /** @throws InvalidAlgorithmParameterException if the toolkit does not offer these parameters */
    static Digest digestOf(AlgorithmParameterSpec parameters) throws InvalidAlgorithmParameterException {
        if (!(parameters instanceof PSSParameterSpec)) {
            throw new InvalidAlgorithmParameterException("RSASSA-PSS needs a PSSParameterSpec, not " + parameters);
        }
        PSSParameterSpec pss = (PSSParameterSpec) parameters;
        Digest digest = Digest.of(pss.getDigestAlgorithm());
        if (digest == null) {
            throw new InvalidAlgorithmParameterException("RSASSA-PSS is offered with a digest of the SHA-2 or SHA-3"
                + " family, not " + pss.getDigestAlgorithm());
        }
        if (!isMaskOf(digest, pss)) {
            throw new InvalidAlgorithmParameterException(
                "RSASSA-PSS with " + digest + " is offered with MGF1 on " + digest + ", not " + maskOf(pss));
        }
        if (pss.getTrailerField() != TRAILER) {
            throw new InvalidAlgorithmParameterException(
                "RSASSA-PSS is offered with the trailer field " + TRAILER + ", not " + pss.getTrailerField());
        }
        if (pss.getSaltLength() != digest.length()) {
            throw new InvalidAlgorithmParameterException("RSASSA-PSS with " + digest
                + " is offered with a salt of " + digest.length() + " bytes, not " + pss.getSaltLength());
        }
        return digest;
    }

    /**
     * The digest that a key allows, by its parameters (RFC 4055 section 3.3). Null: the toolkit does not offer what the
     * key allows.
     */
    static Digest allowedBy(AlgorithmParameterSpec keyParameters) {
        if (!(keyParameters instanceof PSSParameterSpec)) {
            return null;
        }
        PSSParameterSpec pss = (PSSParameterSpec) keyParameters;
        Digest digest = digestFor(pss);
        // The salt of a key's parameters is the shortest that it allows.
        return digest == null || pss.getSaltLength() > digest.length() ? null : digest;
    }

    /** Null: not offered, whatever the length of the salt. */
    private static Digest digestFor(PSSParameterSpec pss) {
        Digest digest = Digest.of(pss.getDigestAlgorithm());
        boolean offered = digest != null && isMaskOf(digest, pss) && pss.getTrailerField() == TRAILER;
        return offered ? digest : null;
    }

    private static boolean isMaskOf(Digest digest, PSSParameterSpec pss) {
        AlgorithmParameterSpec mask = pss.getMGFParameters();
        return pss.getMGFAlgorithm().equalsIgnoreCase(MGF1) && mask instanceof MGF1ParameterSpec
            && Digest.of(((MGF1ParameterSpec) mask).getDigestAlgorithm()) == digest;
    }

    /** The mask generation, for a message. */
    private static String maskOf(PSSParameterSpec pss) {
        AlgorithmParameterSpec mask = pss.getMGFParameters();
        return pss.getMGFAlgorithm() + (mask instanceof MGF1ParameterSpec
            ? " on " + ((MGF1ParameterSpec) mask).getDigestAlgorithm() : " without a digest");
    }

    static PSSParameterSpec spec(Digest digest) {
        return new PSSParameterSpec(
            digest.toString(), MGF1, new MGF1ParameterSpec(digest.toString()), digest.length(), TRAILER);
    }

    /** In the form that a verifier, or a certificate's algorithm identifier, needs. */
    static AlgorithmParameters of(Digest digest) {
        try {
            AlgorithmParameters parameters = AlgorithmParameters.getInstance("RSASSA-PSS");
            parameters.init(spec(digest));
            return parameters;
        } catch (NoSuchAlgorithmException | InvalidParameterSpecException e) {
            throw new ProviderException("This Java has no parameters for RSASSA-PSS with " + digest, e);
        }
    }
}
