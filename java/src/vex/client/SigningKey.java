package vex.client;

import java.io.NotSerializableException;
import java.io.ObjectOutputStream;
import java.math.BigInteger;
import java.security.InvalidKeyException;
import java.security.PrivateKey;
import java.security.PublicKey;
import java.security.interfaces.ECKey;
import java.security.interfaces.ECPublicKey;
import java.security.interfaces.RSAKey;
import java.security.interfaces.RSAPublicKey;
import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.ECParameterSpec;

/**
 * A private key that stays in the toolkit. It has no encoded form, works with {@link SigningProvider} only, and keeps
 * its store open. Any thread may use it.
 */
abstract class SigningKey implements PrivateKey {
    private static final long serialVersionUID = 1L;

    private final transient StoreSession store;
    private final transient String fingerprint;
    private final transient String algorithm;

    private SigningKey(StoreSession store, String fingerprint, String algorithm) {
        this.store = store;
        this.fingerprint = fingerprint;
        this.algorithm = algorithm;
    }

    static SigningKey of(StoreSession store, String fingerprint, PublicKey publicKey) throws InvalidKeyException {
        if (publicKey instanceof RSAPublicKey) {
            return new Rsa(store, fingerprint, ((RSAPublicKey) publicKey).getModulus());
        }
        if (publicKey instanceof ECPublicKey) {
            return new Ec(store, fingerprint, ((ECPublicKey) publicKey).getParams());
        }
        throw new InvalidKeyException(
            "This Java has no provider for the certificate's " + publicKey.getAlgorithm() + " key");
    }

    byte[] sign(String digest, byte[] data) throws SigningException {
        return store.sign(fingerprint, digest, data);
    }

    /**
     * The parameters, as RSAKey and ECKey define them. Declared here because PrivateKey of Java 22 and newer has a
     * default method of this name. It conflicts with RSAKey's, and it would be called instead of ECKey's, which returns
     * a narrower type.
     */
    public abstract AlgorithmParameterSpec getParams();

    @Override
    public final String getAlgorithm() {
        return algorithm;
    }

    @Override
    public final String getFormat() {
        return null;
    }

    @Override
    public final byte[] getEncoded() {
        return null;
    }

    @Override
    public final String toString() {
        return getAlgorithm() + " key of the certificate " + fingerprint + ", in the signing toolkit";
    }

    private void writeObject(ObjectOutputStream stream) throws NotSerializableException {
        throw new NotSerializableException("The key stays in the signing toolkit");
    }

    /** Shows its modulus: some programs check the size of a key. */
    private static final class Rsa extends SigningKey implements RSAKey {
        private static final long serialVersionUID = 1L;

        private final transient BigInteger modulus;

        Rsa(StoreSession store, String fingerprint, BigInteger modulus) {
            super(store, fingerprint, "RSA");
            this.modulus = modulus;
        }

        /** Null: the key is not restricted to RSASSA-PSS. */
        @Override
        public AlgorithmParameterSpec getParams() {
            return null;
        }

        @Override
        public BigInteger getModulus() {
            return modulus;
        }
    }

    /** Shows its curve. */
    private static final class Ec extends SigningKey implements ECKey {
        private static final long serialVersionUID = 1L;

        private final transient ECParameterSpec parameters;

        Ec(StoreSession store, String fingerprint, ECParameterSpec parameters) {
            super(store, fingerprint, "EC");
            this.parameters = parameters;
        }

        @Override
        public ECParameterSpec getParams() {
            return parameters;
        }
    }
}
