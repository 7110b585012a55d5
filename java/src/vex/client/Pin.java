package vex.client;

import java.io.IOException;
import java.util.Arrays;
import javax.security.auth.callback.Callback;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.callback.PasswordCallback;
import javax.security.auth.callback.UnsupportedCallbackException;

/** Opens stores with a PIN from a callback handler. */
final class Pin {
    private Pin() {}

    /** Finds the handler to ask; null: there is none. Called only when a PIN is needed. */
    interface HandlerSource {
        CallbackHandler find() throws IOException;
    }

    static boolean isMissing(SigningException e) {
        return e.reason() == SigningException.Reason.PIN_MISSING;
    }

    static boolean isWrong(SigningException e) {
        return e.reason() == SigningException.Reason.PIN_WRONG;
    }

    /**
     * Opens a store. The handler is asked only if the store needs a PIN that its URI does not have. The PIN is tried
     * once.
     */
    static StoreSession open(String store, HandlerSource source) throws IOException, SigningException {
        try {
            return StoreSession.open(store);
        } catch (SigningException e) {
            CallbackHandler handler = isMissing(e) ? source.find() : null;
            char[] pin = handler == null ? null : ask(store, handler);
            if (isNone(pin)) {
                throw e;
            }
            try {
                return StoreSession.open(StoreText.withPin(store, pin));
            } finally {
                Arrays.fill(pin, '\0');
            }
        }
    }

    /** Tools pass an empty password when their user gives none. */
    static boolean isNone(char[] pin) {
        return pin == null || pin.length == 0;
    }

    private static char[] ask(String store, CallbackHandler handler) throws IOException {
        // What follows the question mark may say where a PIN is.
        String name = StoreText.isUri(store) ? " for " + store.split("\\?", 2)[0] : "";
        PasswordCallback callback = new PasswordCallback("PIN" + name + ": ", false);
        try {
            handler.handle(new Callback[] {callback});
            return callback.getPassword();
        } catch (UnsupportedCallbackException e) {
            throw new IOException("The callback handler gives no PIN: it does not know PasswordCallback", e);
        } finally {
            callback.clearPassword();
        }
    }
}
