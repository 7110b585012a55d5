package vex.client;

import java.io.ByteArrayOutputStream;
import java.security.AlgorithmParameters;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidKeyException;
import java.security.InvalidParameterException;
import java.security.PrivateKey;
import java.security.PublicKey;
import java.security.SignatureException;
import java.security.SignatureSpi;
import java.security.spec.AlgorithmParameterSpec;

/** Collects the data, which the toolkit signs in one call. Like every Signature, for one thread at a time. */
final class SigningEngine extends SignatureSpi {
    private final String keyAlgorithm;
    private final String digest;
    private final ByteArrayOutputStream data = new ByteArrayOutputStream();
    private SigningKey key;

    SigningEngine(String keyAlgorithm, String digest) {
        this.keyAlgorithm = keyAlgorithm;
        this.digest = digest;
    }

    @Override
    protected void engineInitSign(PrivateKey privateKey) throws InvalidKeyException {
        key = null;
        data.reset();
        if (!(privateKey instanceof SigningKey)) {
            throw new InvalidKeyException("The key is not from a KeyStore of the type " + SigningProvider.KEY_STORE_TYPE
                + "; leave the provider out of Signature.getInstance for other keys");
        }
        if (!privateKey.getAlgorithm().equals(keyAlgorithm)) {
            throw new InvalidKeyException("This algorithm needs an " + keyAlgorithm + " key, not the " + privateKey);
        }
        key = (SigningKey) privateKey;
    }

    @Override
    protected void engineInitVerify(PublicKey publicKey) throws InvalidKeyException {
        throw new InvalidKeyException(SigningProvider.NAME + " does not verify signatures; leave the provider out of"
            + " Signature.getInstance for verifying");
    }

    @Override
    protected void engineUpdate(byte b) {
        data.write(b);
    }

    @Override
    protected void engineUpdate(byte[] bytes, int offset, int length) {
        data.write(bytes, offset, length);
    }

    @Override
    protected byte[] engineSign() throws SignatureException {
        byte[] bytes = data.toByteArray();
        data.reset();
        try {
            return key.sign(digest, bytes);
        } catch (SigningException e) {
            throw new SignatureException(e.getMessage(), e);
        }
    }

    @Override
    protected boolean engineVerify(byte[] signature) throws SignatureException {
        throw new SignatureException(SigningProvider.NAME + " does not verify signatures");
    }

    @Override
    protected void engineSetParameter(AlgorithmParameterSpec parameters) throws InvalidAlgorithmParameterException {
        if (parameters != null) {
            throw new InvalidAlgorithmParameterException("The algorithm has no parameters");
        }
    }

    /** Null: there are no parameters. The method of the base class would throw an exception. */
    @Override
    protected AlgorithmParameters engineGetParameters() {
        return null;
    }

    @Override
    @Deprecated
    protected void engineSetParameter(String name, Object value) {
        throw new InvalidParameterException("The algorithm has no parameter " + name);
    }

    @Override
    @Deprecated
    protected Object engineGetParameter(String name) {
        throw new InvalidParameterException("The algorithm has no parameter " + name);
    }
}
