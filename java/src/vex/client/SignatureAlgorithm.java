package vex.client;

import java.io.IOException;
import java.security.AlgorithmParameters;
import java.security.NoSuchAlgorithmException;
import java.security.cert.X509Certificate;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.InvalidParameterSpecException;
import java.security.spec.PSSParameterSpec;
import java.util.Arrays;
import java.util.Optional;
import java.util.regex.Pattern;

/** A signature algorithm as {@link java.security.Signature} takes it. Immutable. */
final class SignatureAlgorithm {
    private static final String RSASSA_PSS = "RSASSA-PSS";
    /** With SHA-3 the last numbers are 9 to 12 for ECDSA and 13 to 16 for RSA. */
    private static final String WITH_SHA3 = "|2\\.16\\.840\\.1\\.101\\.3\\.4\\.3\\.";
    private static final Pattern ECDSA = Pattern.compile("1\\.2\\.840\\.10045\\.4\\..*" + WITH_SHA3 + "(9|1[0-2])");
    private static final Pattern RSA = Pattern.compile("1\\.2\\.840\\.113549\\.1\\.1\\..*" + WITH_SHA3 + "1[3-6]");
    private static final String PSS = "1.2.840.113549.1.1.10";
    private static final String ED25519 = "1.3.101.112";
    private static final String ED448 = "1.3.101.113";

    private final String name;
    private final AlgorithmParameterSpec parameters;  // null: none

    private SignatureAlgorithm(String name, AlgorithmParameterSpec parameters) {
        this.name = name;
        this.parameters = parameters;
    }

    String name() {
        return name;
    }

    Optional<AlgorithmParameterSpec> parameters() {
        return Optional.ofNullable(parameters);
    }

    /**
     * Of a bare signature.
     *
     * @param digestName as the toolkit takes it; null for its default
     */
    static SignatureAlgorithm ofRaw(KeyAlgorithm key, X509Certificate certificate, String digestName) {
        String given = Digest.orDefault(digestName);
        boolean pss = Digest.isPss(given);
        String withoutPss = Digest.withoutPss(given);
        Digest digest = Digest.of(withoutPss);
        String digestInName = digest == null ? withoutPss : digest.inSignatures();
        switch (key) {
            case RSA:
                return pss ? pss(digest) : new SignatureAlgorithm(digestInName + "withRSA", null);
            case RSA_PSS:
                return pss(digest);
            case EC:
                return new SignatureAlgorithm(digestInName + "withECDSA", null);
            case ED25519:
                return new SignatureAlgorithm("Ed25519", null);
            case ED448:
                return new SignatureAlgorithm("Ed448", null);
            default:
                return new SignatureAlgorithm(certificate.getPublicKey().getAlgorithm(), null);
        }
    }

    /** @param digest null: unknown here, and so are the parameters */
    private static SignatureAlgorithm pss(Digest digest) {
        return new SignatureAlgorithm(RSASSA_PSS, digest == null ? null : PssParameters.spec(digest));
    }

    /** Of the first SignerInfo of a CMS signature (RFC 5652 sections 5.1 and 5.3). */
    static SignatureAlgorithm ofCms(byte[] cms) throws SigningException {
        DerReader reader = new DerReader(cms);
        reader.enter(DerReader.SEQUENCE);
        reader.skip(DerReader.OBJECT_IDENTIFIER);
        reader.enter(DerReader.CONTEXT_0);
        reader.enter(DerReader.SEQUENCE);
        reader.skip(DerReader.INTEGER);
        reader.skip(DerReader.SET);
        reader.skip(DerReader.SEQUENCE);
        reader.skipIf(DerReader.CONTEXT_0);
        reader.skipIf(DerReader.CONTEXT_1);
        reader.enter(DerReader.SET);
        reader.enter(DerReader.SEQUENCE);
        reader.skip(DerReader.INTEGER);
        if (!reader.skipIf(DerReader.SEQUENCE)) {
            reader.skip(DerReader.SUBJECT_KEY_IDENTIFIER);
        }
        int digestEnd = reader.enter(DerReader.SEQUENCE);
        Digest digest = Digest.ofOid(reader.objectIdentifier());
        reader.skipTo(digestEnd);
        reader.skipIf(DerReader.CONTEXT_0);
        int end = reader.enter(DerReader.SEQUENCE);
        String oid = reader.objectIdentifier();
        if (end < reader.position()) {
            throw DerReader.malformed();
        }
        return of(oid, digest, Arrays.copyOfRange(cms, reader.position(), end));
    }

    private static SignatureAlgorithm of(String oid, Digest digest, byte[] parameters) {
        if (oid.equals(PSS)) {
            return new SignatureAlgorithm(RSASSA_PSS, pssParameters(parameters, digest));
        }
        if (oid.equals(ED25519)) {
            return new SignatureAlgorithm("Ed25519", null);
        }
        if (oid.equals(ED448)) {
            return new SignatureAlgorithm("Ed448", null);
        }
        if (digest != null && RSA.matcher(oid).matches()) {
            return new SignatureAlgorithm(digest.inSignatures() + "withRSA", null);
        }
        if (digest != null && ECDSA.matcher(oid).matches()) {
            return new SignatureAlgorithm(digest.inSignatures() + "withECDSA", null);
        }
        return new SignatureAlgorithm(oid, null);
    }

    /** Old releases of Java 8 cannot read the parameters; the toolkit's are then the only possible ones. */
    private static AlgorithmParameterSpec pssParameters(byte[] encoded, Digest digest) {
        try {
            AlgorithmParameters parameters = AlgorithmParameters.getInstance(RSASSA_PSS);
            parameters.init(encoded);
            return parameters.getParameterSpec(PSSParameterSpec.class);
        } catch (NoSuchAlgorithmException | InvalidParameterSpecException | IOException e) {
            return digest == null ? null : PssParameters.spec(digest);
        }
    }
}
