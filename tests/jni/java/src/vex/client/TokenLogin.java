package vex.client;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.InvalidKeyException;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Security;
import java.security.Signature;
import java.util.Collections;
import java.util.List;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.callback.PasswordCallback;

/**
 * Signs with a token, logs out, logs in and signs again, as a program in a smart card workplace does. Prints each step
 * with what the token's module saw.
 */
final class TokenLogin {
    private static final byte[] DATA = {1, 2, 3};

    private final Path calls;
    private final String alias;

    private final char[] pin;

    private TokenLogin(Path calls, String alias, char[] pin) {
        this.calls = calls;
        this.alias = alias;
        this.pin = pin;
    }

    /** @param args the store's URI, an alias, the PIN, and the file that has the calls into the module */
    public static void main(String[] args) throws Exception {
        SigningProvider provider = new SigningProvider(args[0]);
        Security.addProvider(provider);
        CallbackHandler user = callbacks -> {
            System.out.println("asked: " + ((PasswordCallback) callbacks[0]).getPrompt());
            ((PasswordCallback) callbacks[0]).setPassword(args[2].toCharArray());
        };
        new TokenLogin(Path.of(args[3]), args[1], args[2].toCharArray()).run(provider, user);
    }

    private void run(SigningProvider provider, CallbackHandler user) throws Exception {
        provider.setCallbackHandler(user);
        KeyStore store = KeyStore.getInstance("VexClient");
        store.load(null, null);
        System.out.println("aliases: " + Collections.list(store.aliases()));
        PrivateKey key = (PrivateKey) store.getKey(alias, null);
        print("first load", sign(store, key));

        KeyStore second = KeyStore.getInstance("VexClient");
        second.load(null, null);
        print("second load", sign(second, (PrivateKey) second.getKey(alias, null)));
        SigningProvider.close(second);
        print("second closed", sign(store, key));

        provider.logout();
        print("logout", refusal(key));
        print("wrong PIN", loadWithWrongPin(store));

        provider.login(null, user);
        store.load(null, null);
        print("login", sign(store, (PrivateKey) store.getKey(alias, null)));
        print("the key from before", refusal(key));

        provider.logout();
        store.load(null, null);
        print("load after logout", sign(store, (PrivateKey) store.getKey(alias, null)));
        provider.logout();
        print("logout", "");

        store.load(null, pin);
        print("PIN of the program", sign(store, (PrivateKey) store.getKey(alias, null)));
        SigningProvider.close(store);
        print("closed", "");
    }

    /** A token that is still logged in could not tell. */
    private static String loadWithWrongPin(KeyStore store) throws Exception {
        try {
            store.load(null, "wrong".toCharArray());
            return "accepted";
        } catch (IOException e) {
            return ((SigningException) e.getCause().getCause()).reason().toString();
        }
    }

    private String sign(KeyStore store, PrivateKey key) throws Exception {
        Signature signature = Signature.getInstance("SHA256withRSA");
        signature.initSign(key);
        signature.update(DATA);
        byte[] signed = signature.sign();
        Signature verifier = Signature.getInstance("SHA256withRSA");
        verifier.initVerify(store.getCertificate(alias));
        verifier.update(DATA);
        return verifier.verify(signed) ? "signed" : "wrong signature";
    }

    private static String refusal(PrivateKey key) throws Exception {
        try {
            Signature.getInstance("SHA256withRSA").initSign(key);
            return "not refused";
        } catch (InvalidKeyException e) {
            return e.getMessage();
        }
    }

    private void print(String step, String result) throws Exception {
        List<String> lines = Files.readAllLines(calls);
        int sessions = Collections.frequency(lines, "C_OpenSession") - Collections.frequency(lines, "C_CloseSession");
        System.out.println(step + ": " + result + "; logins " + Collections.frequency(lines, "C_Login")
            + (sessions == 0 ? ", no session" : ", sessions"));
    }
}
