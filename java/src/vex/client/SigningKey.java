package vex.client;

import java.io.NotSerializableException;
import java.io.ObjectOutputStream;
import java.io.Serializable;
import java.lang.reflect.InvocationHandler;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Proxy;
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
import java.util.Arrays;
import java.util.Optional;

/**
 * A private key that stays in the toolkit. It has no encoded form, works with {@link SigningProvider} only, and keeps
 * its store open until it is destroyed. Keys of the same certificate are equal. Any thread may use it.
 */
abstract class SigningKey implements PrivateKey {
    static final String RSA = "RSA";
    /** The key is restricted to this algorithm, and perhaps to parameters of it. */
    static final String RSASSA_PSS = "RSASSA-PSS";
    static final String EC = "EC";

    private static final String STAYS = "The key stays in the signing toolkit";
    private static final long serialVersionUID = 1L;

    private transient volatile OpenStore store;  // null: the key was destroyed
    private final transient String fingerprint;
    private final transient String algorithm;

    private SigningKey(OpenStore store, String fingerprint, String algorithm) {
        this.store = store;
        this.fingerprint = fingerprint;
        this.algorithm = algorithm;
    }

    /** Returns a key with the algorithm that Java names for the public key. KeyStore requires them to be equal. */
    static SigningKey of(OpenStore store, String fingerprint, PublicKey publicKey) throws InvalidKeyException {
        if (publicKey instanceof RSAPublicKey) {
            return new Rsa(store, fingerprint, (RSAPublicKey) publicKey);
        }
        if (publicKey instanceof ECPublicKey) {
            return new Ec(store, fingerprint, ((ECPublicKey) publicKey).getParams());
        }
        String curve = Edwards.curveOf(publicKey);
        if (curve != null) {
            return new Edwards(store, fingerprint, publicKey.getAlgorithm(), curve);
        }
        throw new InvalidKeyException(
            "This Java has no provider for the certificate's " + publicKey.getAlgorithm() + " key");
    }

    /** Null: the key is not from this package. */
    static SigningKey from(Object key) {
        if (key instanceof SigningKey) {
            return (SigningKey) key;
        }
        boolean proxy = key != null && Proxy.isProxyClass(key.getClass());
        InvocationHandler handler = proxy ? Proxy.getInvocationHandler(key) : null;
        return handler instanceof Edwards.Shown ? ((Edwards.Shown) handler).key() : null;
    }

    /** Whether the key is one of this package's, as another class loader has loaded it. */
    static boolean isForeign(Object key) {
        if (key == null || from(key) != null) {
            return false;
        }
        Object known = Proxy.isProxyClass(key.getClass()) ? Proxy.getInvocationHandler(key) : key;
        return known.getClass().getName().startsWith(SigningKey.class.getName() + '$');
    }

    /** The object that programs get: it has the interfaces that they expect of such a key. */
    PrivateKey shown() {
        return this;
    }

    final boolean isFor(String name) {
        return algorithm.equals(name);
    }

    /** The calls that use the store throw an IllegalStateException if the key was destroyed or the store is closed. */
    final void requireUsable() {
        openStore().requireOpen();
    }

    /** Whether the toolkit has this name for a way to sign. */
    final boolean knowsDigest(String digest) {
        return openStore().knowsDigest(digest);
    }

    final byte[] sign(String digest, byte[] data) throws SigningException {
        return openStore().sign(fingerprint, digest, data);
    }

    /** The store that signs. */
    final OpenStore openStore() {
        OpenStore current = store;
        if (current == null) {
            throw new IllegalStateException("The " + this + ", was destroyed; get another one from the KeyStore");
        }
        return current;
    }

    /** The key does not sign any more. Other keys of the KeyStore do, also those of the same certificate. */
    @Override
    public final void destroy() {
        store = null;
    }

    @Override
    public final boolean isDestroyed() {
        return store == null;
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

    /** Equal keys sign with the same key in the toolkit. */
    @Override
    public final boolean equals(Object other) {
        SigningKey key = from(other);
        return key != null && fingerprint.equals(key.fingerprint);
    }

    @Override
    public final int hashCode() {
        return fingerprint.hashCode();
    }

    private void writeObject(ObjectOutputStream stream) throws NotSerializableException {
        throw new NotSerializableException(STAYS);
    }

    /** Shows its modulus: some programs check the size of a key. */
    private static final class Rsa extends SigningKey implements RSAKey {
        private static final long serialVersionUID = 1L;

        private final transient BigInteger modulus;
        private final transient AlgorithmParameterSpec parameters;

        Rsa(OpenStore store, String fingerprint, RSAPublicKey publicKey) {
            super(store, fingerprint, publicKey.getAlgorithm());
            modulus = publicKey.getModulus();
            AlgorithmParameterSpec ofCertificate = parametersOf(publicKey);
            Digest digest = PssParameters.allowedBy(ofCertificate);
            parameters = digest == null ? ofCertificate : PssParameters.spec(digest);
        }

        /** RSAKey has this method from Java 11 on, and in the last releases of Java 8. */
        private static AlgorithmParameterSpec parametersOf(RSAPublicKey publicKey) {
            try {
                return (AlgorithmParameterSpec) RSAKey.class.getMethod("getParams").invoke(publicKey);
            } catch (NoSuchMethodException e) {
                return null;
            } catch (ReflectiveOperationException e) {
                throw new IllegalStateException("The parameters of an RSA key cannot be read", e);
            }
        }

        /**
         * The parameters that the key signs with, which Java's tools set. The salt in the certificate is only the least
         * one. Null: the certificate does not restrict the key.
         */
        @Override
        public AlgorithmParameterSpec getParams() {
            return parameters;
        }

        @Override
        public BigInteger getModulus() {
            return modulus;
        }
    }

    /** Shows its curve. */
    static final class Ec extends SigningKey implements ECKey {
        private static final long serialVersionUID = 1L;

        private final transient ECParameterSpec parameters;

        private Ec(OpenStore store, String fingerprint, ECParameterSpec parameters) {
            super(store, fingerprint, EC);
            this.parameters = parameters;
        }

        @Override
        public ECParameterSpec getParams() {
            return parameters;
        }
    }

    /**
     * A key for Ed25519 or Ed448. Programs get it as EdECPrivateKey, by which Java's tools tell the curve. Java has the
     * interface from version 15 on, so a proxy implements it.
     */
    static final class Edwards extends SigningKey {
        private static final long serialVersionUID = 1L;
        private static final String[] CURVES = {"Ed25519", "Ed448"};
        /** SubjectPublicKeyInfo of RFC 8410 up to the last byte of the OID 1.3.101.112 or 1.3.101.113. */
        private static final byte[][] HEADS = {
            {0x30, 0x2a, 0x30, 0x05, 0x06, 0x03, 0x2b, 0x65, 0x70},
            {0x30, 0x43, 0x30, 0x05, 0x06, 0x03, 0x2b, 0x65, 0x71},
        };

        private final transient String curve;

        private Edwards(OpenStore store, String fingerprint, String algorithm, String curve) {
            super(store, fingerprint, algorithm);
            this.curve = curve;
        }

        /** Null: it is another kind of key, or this Java cannot verify with it. */
        static String curveOf(PublicKey publicKey) {
            String algorithm = publicKey.getAlgorithm();
            byte[] encoded = publicKey.getEncoded();
            for (int i = 0; i < CURVES.length; ++i) {
                if ((algorithm.equals("EdDSA") || algorithm.equals(CURVES[i])) && encoded != null
                    && encoded.length > HEADS[i].length
                    && Arrays.equals(Arrays.copyOf(encoded, HEADS[i].length), HEADS[i])) {
                    return CURVES[i];
                }
            }
            return null;
        }

        String curve() {
            return curve;
        }

        /** Null if this Java has no class for them. */
        @Override
        public AlgorithmParameterSpec getParams() {
            try {
                return (AlgorithmParameterSpec) Class.forName("java.security.spec.NamedParameterSpec")
                    .getConstructor(String.class).newInstance(curve);
            } catch (ReflectiveOperationException e) {
                return null;
            }
        }

        @Override
        PrivateKey shown() {
            try {
                Class<?> type = Class.forName("java.security.interfaces.EdECPrivateKey");
                return (PrivateKey) Proxy.newProxyInstance(
                    SigningKey.class.getClassLoader(), new Class<?>[] {type}, new Shown());
            } catch (ClassNotFoundException e) {
                return this;
            }
        }

        /** The EdECPrivateKey's methods. */
        final class Shown implements InvocationHandler, Serializable {
            private static final long serialVersionUID = 1L;

            SigningKey key() {
                return Edwards.this;
            }

            @Override
            public Object invoke(Object proxy, Method method, Object[] arguments) throws Throwable {
                switch (method.getName()) {
                    case "getBytes":
                        return Optional.empty();
                    case "equals":
                        return Edwards.this.equals(arguments[0]);
                    default:
                        break;
                }
                try {
                    return Edwards.class.getMethod(method.getName()).invoke(Edwards.this);
                } catch (InvocationTargetException e) {
                    throw e.getCause();
                }
            }

            /** Java writes a proxy by writing its handler. */
            private void writeObject(ObjectOutputStream stream) throws NotSerializableException {
                throw new NotSerializableException(STAYS);
            }
        }
    }
}
