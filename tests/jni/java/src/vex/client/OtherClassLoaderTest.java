package vex.client;

import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.lang.reflect.Method;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Path;
import java.security.InvalidKeyException;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.PublicKey;
import java.security.Signature;
import java.security.cert.X509Certificate;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Objects of another copy of the jar. Providers belong to the JVM, so an application may get another one's. */
@Tag("client")
class OtherClassLoaderTest {
    @TempDir
    private Path directory;

    private static URLClassLoader otherCopy() {
        URL jar = SigningProvider.class.getProtectionDomain().getCodeSource().getLocation();
        return new URLClassLoader(new URL[] {jar}, ClassLoader.getPlatformClassLoader());
    }

    @Test
    void refusesAParameter() throws Exception {
        try (URLClassLoader loader = otherCopy()) {
            KeyStore.LoadStoreParameter foreign =
                (KeyStore.LoadStoreParameter) loader.loadClass(StoreParameter.class.getName())
                    .getMethod("file", Path.class).invoke(null, directory.resolve("keys.p12"));
            IOException e = assertThrows(IOException.class,
                () -> KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, new SigningProvider("demo:")).load(foreign));
            assertTrue(e.getMessage().contains("of another class loader"), e.getMessage());

            Provider other = (Provider) loader.loadClass(SigningProvider.class.getName()).getConstructor()
                .newInstance();
            KeyStore others = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, other);
            IllegalArgumentException refused =
                assertThrows(IllegalArgumentException.class, () -> SigningProvider.close(others));
            assertTrue(refused.getMessage().contains("of another class loader"), refused.getMessage());
        }
    }

    @ParameterizedTest
    @CsvSource({"SHA256withRSA,RSA", "Ed25519,ED25519"})
    void refusesAKey(String algorithm, OpenSslKeys kind) throws Exception {
        X509Certificate certificate = kind.write(directory.resolve("foreign.pem"));
        // A JVM loads a library for one class loader only, so this key has no store.
        try (URLClassLoader loader = otherCopy()) {
            Class<?> keys = loader.loadClass(SigningKey.class.getName());
            Method of = keys.getDeclaredMethod(
                "of", loader.loadClass(OpenStore.class.getName()), String.class, PublicKey.class);
            of.setAccessible(true);
            Method shown = keys.getDeclaredMethod("shown");
            shown.setAccessible(true);
            PrivateKey key = (PrivateKey) shown.invoke(of.invoke(null, null, "00", certificate.getPublicKey()));
            Signature signature = Signature.getInstance(algorithm, new SigningProvider());
            InvalidKeyException refused = assertThrows(InvalidKeyException.class, () -> signature.initSign(key));
            assertTrue(refused.getMessage().contains("of another class loader"), refused.getMessage());
        }
    }
}
