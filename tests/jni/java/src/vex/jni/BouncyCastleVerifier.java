package vex.jni;

import java.security.GeneralSecurityException;
import java.security.KeyFactory;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.security.Provider;
import java.security.PublicKey;
import java.security.Signature;
import java.security.SignatureException;
import java.security.spec.X509EncodedKeySpec;
import org.bouncycastle.cms.CMSException;
import org.bouncycastle.cms.jcajce.JcaSimpleSignerInfoVerifierBuilder;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.bouncycastle.operator.OperatorCreationException;

/** Bouncy Castle: its parser, paths, digests and signatures. */
final class BouncyCastleVerifier extends ProviderVerifier {
    private static final Provider PROVIDER = new BouncyCastleProvider();

    BouncyCastleVerifier() {
        super(PROVIDER);
    }

    @Override
    public String name() {
        return "Bouncy Castle";
    }

    @Override
    Answer onSigner(CmsParts parts, Scheme scheme) throws OperatorCreationException, CMSException {
        return parts.signer().verify(
            new JcaSimpleSignerInfoVerifierBuilder().setProvider(PROVIDER).build(parts.certificate()))
            ? Answer.accepts(parts.content()) : Answer.refuses("wrong signature");
    }

    @Override
    boolean isGood(byte[] signature, byte[] content, Scheme scheme, PublicKey key)
            throws GeneralSecurityException {
        String digest = scheme.digest().inSignatures().replaceAll("/(.*)", "($1)");
        byte[] input = content;
        Signature verifier;
        if (scheme.isEdwards()) {
            verifier = Signature.getInstance(scheme.key(), PROVIDER);
        } else if (scheme.isRsa()) {
            verifier = Signature.getInstance(digest + "withRSA" + (scheme.pss() ? "andMGF1" : ""), PROVIDER);
        } else {
            try {
                verifier = Signature.getInstance(digest + "withECDSA", PROVIDER);
            } catch (NoSuchAlgorithmException e) {
                // Some digests have no name of a signature algorithm with ECDSA.
                verifier = Signature.getInstance("NONEwithECDSA", PROVIDER);
                input = MessageDigest.getInstance(scheme.digest().name(), PROVIDER).digest(content);
            }
        }
        String algorithm = scheme.isEdwards() ? scheme.key() : scheme.isRsa() ? "RSA" : "EC";
        verifier.initVerify(
            KeyFactory.getInstance(algorithm, PROVIDER).generatePublic(new X509EncodedKeySpec(key.getEncoded())));
        verifier.update(input);
        try {
            return verifier.verify(signature);
        } catch (SignatureException e) {
            return false;
        }
    }
}
