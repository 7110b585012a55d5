package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.AuthProvider;
import java.security.InvalidKeyException;
import java.security.KeyStore;
import java.security.KeyStoreException;
import java.security.PrivateKey;
import java.security.Security;
import java.security.Signature;
import java.security.UnrecoverableKeyException;
import java.security.cert.X509Certificate;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.callback.PasswordCallback;
import javax.security.auth.callback.UnsupportedCallbackException;
import javax.security.auth.login.FailedLoginException;
import javax.security.auth.login.LoginException;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;
import vex.jni.TestStore;
import vex.jni.Together;

/** Who is asked for a PIN, when, and how often. */
@Tag("client")
class LoginTest {
    @TempDir
    private static Path directory;

    private static Path file;
    private static Path withoutPin;

    private final User user = new User(TestStore.PIN);
    private final AuthProvider provider = new SigningProvider("file:" + file);

    @BeforeAll
    static void writeStores() throws Exception {
        file = directory.resolve("keys.p12");
        TestStore.writePkcs12(file, List.of(TestStore.identity("secp256r1", "CN=EC", 1, 30, 0)));
        withoutPin = directory.resolve("keys.pem");
        TestStore.writePem(withoutPin, List.of(TestStore.identity("secp256r1", "CN=PEM", 1, 30, 0)));
    }

    /** Enters a PIN, and remembers what was asked. */
    static final class User implements CallbackHandler {
        final List<String> asked = new ArrayList<>();
        private final String pin;

        User(String pin) {
            this.pin = pin;
        }

        @Override
        public synchronized void handle(Callback[] callbacks) {
            for (Callback callback : callbacks) {
                PasswordCallback password = (PasswordCallback) callback;
                asked.add(password.getPrompt());
                password.setPassword(pin == null ? null : pin.toCharArray());
            }
        }

        synchronized int times() {
            return asked.size();
        }
    }

    private KeyStore newStore() throws KeyStoreException {
        return KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, provider);
    }

    private KeyStore load(KeyStore.LoadStoreParameter parameter) throws Exception {
        KeyStore store = newStore();
        store.load(parameter);
        return store;
    }

    private static StoreParameter asking(Path path, CallbackHandler handler) {
        return StoreParameter.file(path, new KeyStore.CallbackHandlerProtection(handler));
    }

    private void assertSigns(KeyStore store) throws Exception {
        sign((PrivateKey) store.getKey(store.aliases().nextElement(), null));
    }

    private void sign(PrivateKey key) throws Exception {
        Signature signature = Signature.getInstance("SHA256withECDSA", provider);
        signature.initSign(key);
        assertTrue(signature.sign().length > 0);
    }

    private static void assertPinProblem(int number, IOException e) {
        assertInstanceOf(UnrecoverableKeyException.class, e.getCause());
        assertEquals(number, assertInstanceOf(SigningException.class, e.getCause().getCause()).number());
    }

    // ---- Loads without a PIN ----

    @Test
    void aLoadWithoutAPinAsksTheHandlerOfTheProvider() throws Exception {
        provider.setCallbackHandler(user);
        assertSigns(load(null));
        assertEquals(List.of("PIN for file:" + file + ": "), user.asked);
        assertSigns(load(() -> null));
        assertSigns(load(StoreParameter.file(file)));
        assertEquals(1, user.times(), "the load was a login");
        provider.setCallbackHandler(null);
        assertSigns(load(null));
    }

    @Test
    void logoutForgetsThePin() throws Exception {
        provider.setCallbackHandler(user);
        KeyStore store = load(null);
        PrivateKey key = (PrivateKey) store.getKey(store.aliases().nextElement(), null);
        for (int times = 1; times < 4; ++times) {
            assertEquals(times, user.times());
            provider.logout();
            assertThrows(InvalidKeyException.class, () -> sign(key));
            store.load(null);
            assertSigns(store);
        }
        assertThrows(InvalidKeyException.class, () -> sign(key));
    }

    @Test
    void asksOnceIfManyThreadsLoad() throws Exception {
        provider.setCallbackHandler(user);
        Together.run(8, thread -> assertSigns(load(null)));
        assertEquals(1, user.times());
    }

    @Test
    void asksForEachLoadOfAnotherStore() throws Exception {
        AuthProvider other = new SigningProvider();
        other.setCallbackHandler(user);
        for (int times = 1; times < 3; ++times) {
            KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, other);
            store.load(StoreParameter.file(file));
            assertSigns(store);
            assertEquals(times, user.times());
        }
    }

    @Test
    void asksOnlyIfAPinIsNeededAndNoneWasGiven() throws Exception {
        provider.setCallbackHandler(user);
        Path pinFile = Files.writeString(directory.resolve("pin"), TestStore.PIN);
        Files.setPosixFilePermissions(pinFile, PosixFilePermissions.fromString("rw-------"));
        load(StoreParameter.file(withoutPin));
        load(asking(withoutPin, user));
        load(StoreParameter.file(file, pinFile));
        load(StoreParameter.file(file, new KeyStore.PasswordProtection(TestStore.PIN.toCharArray())));
        newStore().load(null, TestStore.PIN.toCharArray());
        assertPinProblem(1108,
            assertThrows(IOException.class, () -> newStore().load(null, "wrong".toCharArray())));
        IOException missing =
            assertThrows(IOException.class, () -> load(StoreParameter.file(directory.resolve("missing.p12"))));
        assertInstanceOf(SigningException.class, missing.getCause());
        assertEquals(0, user.times());
    }

    @Test
    void theHandlerOfTheLoadComesFirst() throws Exception {
        provider.setCallbackHandler(new User("wrong"));
        for (int times = 1; times < 3; ++times) {
            assertSigns(load(asking(file, user)));
            assertEquals(times, user.times(), "it is no login");
        }
    }

    @Test
    void triesAWrongPinOnce() throws Exception {
        User wrong = new User("wrong-4711");
        provider.setCallbackHandler(wrong);
        for (int times = 1; times < 3; ++times) {
            IOException e = assertThrows(IOException.class, () -> load(null));
            assertPinProblem(1108, e);
            assertTrue(!e.toString().contains("4711"), e.toString());
            assertEquals(times, wrong.times());
        }
        provider.setCallbackHandler(user);
        assertSigns(load(null));
    }

    @Test
    void aPinThatTheUserDoesNotEnterIsMissing() throws Exception {
        assertPinProblem(1107, assertThrows(IOException.class, () -> load(null)));
        for (String nothing : new String[] {null, ""}) {
            provider.setCallbackHandler(new User(nothing));
            assertPinProblem(1107, assertThrows(IOException.class, () -> load(null)));
        }
    }

    @Test
    void aHandlerThatCannotAskIsReported() throws Exception {
        provider.setCallbackHandler(callbacks -> {
            throw new UnsupportedCallbackException(callbacks[0]);
        });
        IOException e = assertThrows(IOException.class, () -> load(null));
        assertTrue(e.getMessage().contains("PasswordCallback"), e.getMessage());
        IOException own = new IOException("the dialog was closed");
        provider.setCallbackHandler(callbacks -> {
            throw own;
        });
        assertSame(own, assertThrows(IOException.class, () -> load(null)));
        assertSame(own, assertThrows(LoginException.class, () -> provider.login(null, null)).getCause());
    }

    @Test
    void aBuilderAsksAgainAfterAWrongPin() throws Exception {
        List<String> pins = new ArrayList<>(List.of("wrong", TestStore.PIN));
        CallbackHandler typing =
            callbacks -> ((PasswordCallback) callbacks[0]).setPassword(pins.remove(0).toCharArray());
        assertSigns(KeyStore.Builder.newInstance(SigningProvider.KEY_STORE_TYPE, provider,
            new KeyStore.CallbackHandlerProtection(typing)).getKeyStore());
        assertEquals(List.of(), pins);
    }

    // ---- login ----

    @Test
    void loginAsksNowAndLoadsNeedNoPin() throws Exception {
        provider.login(null, user);
        assertEquals(1, user.times());
        KeyStore store = load(null);
        assertSigns(store);
        provider.login(null, user);
        assertEquals(1, user.times(), "it is logged in already");

        SigningProvider.close(store);
        assertSigns(load(null));
        assertEquals(1, user.times(), "closing a KeyStore is no logout");

        provider.logout();
        assertPinProblem(1107, assertThrows(IOException.class, () -> load(null)));
        provider.login(null, user);
        assertEquals(2, user.times());
        assertSigns(load(null));
    }

    /** A store's file may be replaced while the provider is logged in. */
    @ParameterizedTest
    @ValueSource(strings = {"deleted", "damaged", "without PIN"})
    void loadsSeeTheStoreAsItWasAtTheLogin(String change) throws Exception {
        Path changing = Files.copy(file, directory.resolve("changing.p12"), StandardCopyOption.REPLACE_EXISTING);
        AuthProvider other = new SigningProvider("file:" + changing);
        other.login(null, user);
        X509Certificate expected = onlyCertificate(other);
        switch (change) {
            case "deleted" -> Files.delete(changing);
            case "damaged" -> Files.write(changing, new byte[100]);
            default -> Files.copy(withoutPin, changing, StandardCopyOption.REPLACE_EXISTING);
        }
        assertEquals(expected, onlyCertificate(other));
        assertEquals(1, user.times());
        other.logout();
        if (change.equals("without PIN")) {
            assertNotEquals(expected, onlyCertificate(other));
        } else {
            assertThrows(IOException.class, () -> onlyCertificate(other));
        }
    }

    private static X509Certificate onlyCertificate(AuthProvider provider) throws Exception {
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, provider);
        store.load(null, null);
        return (X509Certificate) store.getCertificate(store.aliases().nextElement());
    }

    @Test
    void aLoadThatALogoutInterruptsSaysSo() throws Exception {
        provider.setCallbackHandler(user);
        AtomicInteger loading = new AtomicInteger(3);
        Together.run(4, thread -> {
            if (thread == 3) {
                while (loading.get() > 0) {
                    provider.logout();
                }
                return;
            }
            try {
                for (int i = 0; i < 40; ++i) {
                    loadOrLoggedOut();
                }
            } finally {
                loading.decrementAndGet();
            }
        });
    }

    private void loadOrLoggedOut() throws Exception {
        try {
            load(null);
        } catch (IOException e) {
            assertEquals("The provider VexClient was logged out; load the KeyStore again", e.getMessage());
        }
    }

    @Test
    void loginUsesTheHandlerThatWasSet() throws Exception {
        provider.setCallbackHandler(user);
        provider.login(null, null);
        assertEquals(1, user.times());
    }

    /** The name of the class is in a security property. */
    public static final class DefaultHandler implements CallbackHandler {
        @Override
        public void handle(Callback[] callbacks) {
            ((PasswordCallback) callbacks[0]).setPassword(TestStore.PIN.toCharArray());
        }
    }

    @Test
    void theRuntimesConfigurationMayNameTheHandler() throws Exception {
        String property = "auth.login.defaultCallbackHandler";
        assertNull(Security.getProperty(property));
        try {
            Security.setProperty(property, DefaultHandler.class.getName());
            provider.login(null, null);
            assertSigns(load(null));
            provider.logout();
            Security.setProperty(property, "no.such.Handler");
            load(StoreParameter.file(withoutPin));
            IOException e = assertThrows(IOException.class, () -> load(null));
            assertTrue(e.getMessage().contains("no.such.Handler"), e.getMessage());
        } finally {
            Security.setProperty(property, "");  // a property cannot be removed
        }
    }

    @Test
    void loginTellsWhyItFailed() throws Exception {
        LoginException e = assertThrows(FailedLoginException.class, () -> provider.login(null, new User("wrong")));
        assertEquals(1108, assertInstanceOf(SigningException.class, e.getCause()).number());
        e = assertThrows(FailedLoginException.class, () -> provider.login(null, null));
        assertEquals(1107, assertInstanceOf(SigningException.class, e.getCause()).number());
        e = assertThrows(LoginException.class, () -> new SigningProvider("file:/missing.p12").login(null, user));
        assertEquals(1103, assertInstanceOf(SigningException.class, e.getCause()).number());
        assertEquals(0, user.times());
        e = assertThrows(LoginException.class, () -> new SigningProvider().login(null, user));
        assertTrue(e.getMessage().startsWith("The provider has no store of its own to log in to."), e.getMessage());
    }

    /** A caller's array may be longer than the PIN. */
    @Test
    void saysWhyItIsNoPin() {
        String[][] rows = {{"4711\ud800", "unpaired surrogate"}, {"4711\0", "U+0000"}, {"\0", "U+0000"}};
        for (String[] row : rows) {
            LoginException login = assertThrows(LoginException.class, () -> provider.login(null, new User(row[0])));
            IOException load = assertThrows(IOException.class, () -> newStore().load(null, row[0].toCharArray()));
            for (Exception e : List.of(login, load)) {
                assertTrue(e.getMessage().startsWith("The PIN ") && e.getMessage().contains(row[1]), e.getMessage());
                assertFalse(e.getMessage().contains("4711"), e.getMessage());
            }
        }
    }

    @Test
    void loginNeedsNoHandlerForAStoreWithoutPin() throws Exception {
        AuthProvider other = new SigningProvider("file:" + withoutPin);
        other.login(null, null);
        KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, other);
        store.load(null, null);
        assertSigns(store);
        other.logout();
        other.logout();
        assertThrows(UnrecoverableKeyException.class, () -> store.getKey(store.aliases().nextElement(), null));
    }
}
