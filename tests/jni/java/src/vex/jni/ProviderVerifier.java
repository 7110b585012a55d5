package vex.jni;

import java.security.GeneralSecurityException;
import java.security.Provider;
import java.security.PublicKey;

/** What verifiers that are security providers have in common. */
abstract class ProviderVerifier implements Verifier {
    private final Provider provider;

    ProviderVerifier(Provider provider) {
        this.provider = provider;
    }

    @Override
    public Answer onPath(Knowledge knowledge) {
        try {
            Signatures.requirePath(knowledge.given(), knowledge.given().get(0), knowledge.root(), provider);
            return Answer.accepts(new byte[0]);
        } catch (GeneralSecurityException e) {
            return Answer.refuses(e.toString());
        }
    }

    @Override
    public Answer onP1(byte[] signature, byte[] content, Scheme scheme, Knowledge knowledge) {
        try {
            return isGood(signature, content, scheme, knowledge.given().get(0).getPublicKey())
                ? Answer.accepts(content) : Answer.refuses("wrong signature");
        } catch (GeneralSecurityException e) {
            return Answer.refuses(e.toString());
        }
    }

    @Override
    public Answer onP7(byte[] der, byte[] content, Scheme scheme, Knowledge knowledge) {
        try {
            CmsParts parts = CmsParts.parse(der, content, knowledge);
            Signatures.requirePath(parts.known(), parts.certificate(), knowledge.root(), provider);
            return onSigner(parts, scheme);
        } catch (Exception e) {
            // Parsers throw exceptions of their own when a signature is malformed.
            return Answer.refuses(e.toString());
        }
    }

    /** Verifies a bare signature. */
    abstract boolean isGood(byte[] signature, byte[] signed, Scheme scheme, PublicKey key)
        throws GeneralSecurityException;

    /** Verifies the signer of a CMS structure, whose certificate has a path to the root. */
    abstract Answer onSigner(CmsParts parts, Scheme scheme) throws Exception;
}
