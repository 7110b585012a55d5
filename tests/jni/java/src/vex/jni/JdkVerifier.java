package vex.jni;

import java.io.IOException;
import java.lang.reflect.InvocationTargetException;
import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.PublicKey;
import java.security.Security;
import java.security.Signature;
import java.security.SignatureException;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.Arrays;
import org.bouncycastle.asn1.ASN1OctetString;
import org.bouncycastle.asn1.cms.CMSAttributes;

/**
 * The JDK's own providers. The JDK has no public parser of CMS, so Bouncy Castle parses the structure. What follows are
 * the steps of RFC 5652 section 5.4 with the JDK's digests, signatures and paths.
 */
final class JdkVerifier extends ProviderVerifier {
    private static final Provider SUN = Security.getProvider("SUN");

    JdkVerifier() {
        super(SUN);
    }

    @Override
    public String name() {
        return "JDK";
    }

    @Override
    Answer onSigner(CmsParts parts, Scheme scheme) throws GeneralSecurityException, IOException {
        byte[] named = ASN1OctetString.getInstance(parts.signer().getSignedAttributes()
            .get(CMSAttributes.messageDigest).getAttrValues().getObjectAt(0)).getOctets();
        String digest = scheme.isEdwards() ? "SHA-512" : scheme.digest().name();
        if (!Arrays.equals(named, MessageDigest.getInstance(digest).digest(parts.content()))) {
            return Answer.refuses("wrong digest");
        }
        return isGood(parts.signer().getSignature(), parts.signer().getEncodedSignedAttributes(), scheme,
            parts.certificate().getPublicKey()) ? Answer.accepts(parts.content())
                                                : Answer.refuses("wrong signature");
    }

    @Override
    boolean isGood(byte[] signature, byte[] signed, Scheme scheme, PublicKey key)
            throws GeneralSecurityException {
        String digest = scheme.digest().inSignatures();
        byte[] input = signed;
        Signature verifier;
        if (scheme.isEdwards()) {
            verifier = Signature.getInstance(scheme.key());
        } else if (scheme.pss()) {
            verifier = Signature.getInstance("RSASSA-PSS");
            String name = scheme.digest().name();
            verifier.setParameter(new PSSParameterSpec(name, "MGF1", new MGF1ParameterSpec(name),
                MessageDigest.getInstance(name).getDigestLength(), PSSParameterSpec.TRAILER_FIELD_BC));
        } else if (scheme.isRsa()) {
            verifier = Signature.getInstance(digest + "withRSA");
        } else {
            try {
                verifier = Signature.getInstance(digest + "withECDSA");
            } catch (NoSuchAlgorithmException e) {
                // Some digests have no name of a signature algorithm with ECDSA.
                verifier = Signature.getInstance("NONEwithECDSA");
                input = MessageDigest.getInstance(scheme.digest().name()).digest(signed);
            }
        }
        verifier.initVerify(key);
        verifier.update(input);
        try {
            return verifier.verify(signature);
        } catch (SignatureException e) {
            return false;
        }
    }

    /**
     * Verifies with the JDK's reader of signed jars, which is not public. The signature has to contain the certificate.
     *
     * @param content the content of a detached signature; null for an attached one
     */
    static boolean isGoodForJars(byte[] der, byte[] content) throws ReflectiveOperationException {
        Class<?> type = Class.forName("sun.security.pkcs.PKCS7");
        try {
            Object parsed = type.getConstructor(byte[].class).newInstance(der);
            Object[] signers = (Object[]) type.getMethod("verify", byte[].class).invoke(parsed, content);
            return signers != null && signers.length == 1;
        } catch (InvocationTargetException e) {
            return false;
        }
    }
}
