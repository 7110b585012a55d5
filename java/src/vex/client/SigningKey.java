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
 * A private key that stays in the toolkit: it has no encoded form and works with this provider alone. It keeps its
 * store open. Any thread may use it.
 */
abstract class SigningKey implements PrivateKey {
    private static final long serialVersionUID = 1L;

    private final transient StoreSession store;
    private final transient String fingerprint;

    private SigningKey(StoreSession store, String fingerprint) {
        this.store = store;
        this.fingerprint = fingerprint;
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
     * What the algorithm's key interface says. Declared here because from Java 22 on PrivateKey has a default of its
     * own: it conflicts with RSAKey's, and would be called instead of an ECKey's method of a narrower type.
     */
    public abstract AlgorithmParameterSpec getParams();

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

    /** Tells its size, as code that judges keys by it wants to know. */
    private static final class Rsa extends SigningKey implements RSAKey {
        private static final long serialVersionUID = 1L;

        private final transient BigInteger modulus;

        Rsa(StoreSession store, String fingerprint, BigInteger modulus) {
            super(store, fingerprint);
            this.modulus = modulus;
        }

        @Override
        public String getAlgorithm() {
            return "RSA";
        }

        /** None: the key is not restricted to RSASSA-PSS. */
        @Override
        public AlgorithmParameterSpec getParams() {
            return null;
        }

        @Override
        public BigInteger getModulus() {
            return modulus;
        }
    }

    /** Tells its curve. */
    private static final class Ec extends SigningKey implements ECKey {
        private static final long serialVersionUID = 1L;

        private final transient ECParameterSpec parameters;

        Ec(StoreSession store, String fingerprint, ECParameterSpec parameters) {
            super(store, fingerprint);
            this.parameters = parameters;
        }

        @Override
        public String getAlgorithm() {
            return "EC";
        }

        @Override
        public ECParameterSpec getParams() {
            return parameters;
        }
    }
}
