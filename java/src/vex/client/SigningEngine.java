package vex.client;

import java.nio.ByteBuffer;
import java.security.AlgorithmParameters;
import java.security.InvalidAlgorithmParameterException;
import java.security.InvalidKeyException;
import java.security.InvalidParameterException;
import java.security.PrivateKey;
import java.security.ProviderException;
import java.security.PublicKey;
import java.security.SignatureException;
import java.security.SignatureSpi;
import java.security.spec.AlgorithmParameterSpec;

/** A signature algorithm with the toolkit's keys. Like every Signature, for one thread at a time. */
abstract class SigningEngine extends SignatureSpi {
    private static final int PIECE = 1 << 13;
    /** Java never changes the provider of an object that has signed, even if none was named. */
    private static final String ANOTHER = " object from Signature.getInstance, without the provider";

    private SigningKey key;
    private Message message;  // null: the parameters that it needs are not set

    /** Whether the algorithm is for keys of this kind. */
    abstract boolean fits(SigningKey candidate);

    /**
     * Begins a message.
     *
     * @param signer fits
     * @return null if the parameters that the algorithm needs are not set
     * @throws InvalidKeyException if the toolkit, or the key, does not offer the algorithm with its parameters
     */
    abstract Message newMessage(SigningKey signer) throws InvalidKeyException;

    /** Converts the toolkit's signature to the form of the algorithm. */
    byte[] convert(SigningKey signer, byte[] signature) throws SigningException {
        return signature;
    }

    @Override
    protected final void engineInitSign(PrivateKey privateKey) throws InvalidKeyException {
        key = null;
        message = null;
        SigningKey candidate = SigningKey.from(privateKey);
        if (candidate == null && SigningKey.isForeign(privateKey)) {
            throw new InvalidKeyException("The Signature's provider and the key are" + SigningProvider.FOREIGN);
        }
        if (candidate == null) {
            throw new InvalidKeyException("The key is not from a KeyStore of the type " + SigningProvider.KEY_STORE_TYPE
                + "; for other keys, get another Signature" + ANOTHER);
        }
        if (!fits(candidate)) {
            throw new InvalidKeyException("The algorithm does not fit the " + candidate);
        }
        begin(candidate);
        key = candidate;
    }

    private void begin(SigningKey signer) throws InvalidKeyException {
        try {
            signer.requireUsable();
            message = newMessage(signer);
        } catch (IllegalStateException e) {
            throw new InvalidKeyException(e.getMessage(), e);
        }
    }

    @Override
    protected final void engineInitVerify(PublicKey publicKey) throws InvalidKeyException {
        throw new InvalidKeyException(SigningProvider.NAME + " does not verify signatures; to verify, get"
            + " another Signature" + ANOTHER);
    }

    @Override
    protected final void engineUpdate(byte b) throws SignatureException {
        engineUpdate(new byte[] {b}, 0, 1);
    }

    @Override
    protected final void engineUpdate(byte[] bytes, int offset, int length) throws SignatureException {
        try {
            message().update(bytes, offset, length);
        } catch (SigningException e) {
            throw new SignatureException(e.getMessage(), e);
        }
    }

    /** The base class would leave the reason out. */
    @Override
    protected final void engineUpdate(ByteBuffer input) {
        byte[] piece = new byte[Math.min(input.remaining(), PIECE)];
        try {
            while (input.hasRemaining()) {
                int length = Math.min(input.remaining(), piece.length);
                input.get(piece, 0, length);
                engineUpdate(piece, 0, length);
            }
        } catch (SignatureException e) {
            throw new ProviderException(e.getMessage(), e);
        }
    }

    @Override
    protected final byte[] engineSign() throws SignatureException {
        try {
            return convert(key, message().sign(key));
        } catch (SigningException | IllegalStateException e) {
            throw new SignatureException(e.getMessage(), e);
        }
    }

    private Message message() throws SignatureException {
        if (key == null) {
            throw new SignatureException("The last initSign failed; call it again");
        }
        if (message == null) {
            throw new SignatureException("RSASSA-PSS needs parameters; call setParameter with a PSSParameterSpec");
        }
        return message;
    }

    /** Begins the message again, with changed parameters. */
    final void restart() throws InvalidKeyException {
        if (key != null) {
            begin(key);
        }
    }

    /** Whether a part of the message is known already. */
    final boolean isUpdated() {
        return message != null && !message.isEmpty();
    }

    @Override
    protected final boolean engineVerify(byte[] signature) throws SignatureException {
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
    protected final void engineSetParameter(String name, Object value) {
        throw new InvalidParameterException("The algorithm has no parameter " + name);
    }

    @Override
    @Deprecated
    protected final Object engineGetParameter(String name) {
        throw new InvalidParameterException("The algorithm has no parameter " + name);
    }
}
